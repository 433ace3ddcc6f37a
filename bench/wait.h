#pragma once

#include <functional>

namespace bench {

// Serves the event loop until `done` holds or the time is up; returns `done()`.
bool wait_until(const std::function<bool()>& done, int timeout_ms);

// Serves the event loop for the given time.
void pause_ms(int ms);

}  // namespace bench
