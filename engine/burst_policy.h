#pragma once

#include <algorithm>
#include <cstddef>

// When the open burst is committed. A burst is the deliveries handled in one store
// transaction; none of them is settled before that transaction is committed and on the
// disk. A burst ends:
//  - when half the consumer's prefetch window (at most 64 deliveries) is handled: their
//    acknowledgements let the broker send the next deliveries while the rest are handled;
//  - when control returns to the event loop: every delivery at hand is handled, so none
//    waits for company and an idle queue never holds an uplink back;
//  - before work that must see it committed: a command, a controller tick, shutdown.
class burst_policy {
public:
    enum class event {
        delivery_handled,  // one more delivery joined the burst
        loop_turned,       // control came back to the event loop
        exclusive_work,    // a command, a tick or shutdown needs the burst committed
    };

    static constexpr std::size_t max_deliveries = 64;

    explicit burst_policy(int prefetch = 2)
        : m_window(std::min(std::size_t(std::max(1, prefetch / 2)), max_deliveries)) {}

    // Whether the burst of `handled` deliveries ends at `e`.
    bool ends(event e, std::size_t handled) const {
        return e != event::delivery_handled || handled >= m_window;
    }
    std::size_t window() const { return m_window; }

private:
    std::size_t m_window = 1;
};
