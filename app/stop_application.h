#pragma once

#include <exception>

// Thrown from anything running inside event dispatch to end the process normally:
// Application::notify turns it into QCoreApplication::quit().
struct stop_application : std::exception {};
