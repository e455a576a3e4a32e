#pragma once

#include <ctime>

/// The clock that ends the wait for a busy driver: time(2), unless a test puts its own here. Not exported.
extern std::time_t (*g_driverClock)(std::time_t*);
