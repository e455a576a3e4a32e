#pragma once

#include "emulator/DriverEmulator.h"

#include <mutex>
#include <string>

namespace emulator {

/// Held while a request is answered.
extern std::mutex driverLock;

/// Ends the process: whoever uses the emulator made a mistake.
[[noreturn]] void die(const std::string& what);

/// The errno that this request is to fail with, or 0. Counts it as made.
int takeFailure(unsigned request);

/// Keeps the request for whoever looks at `seen`, and writes it to standard error if that is wished for.
void note(unsigned request, const std::string& text, int err);

/// What a system call returns, with errno set, for a request that ended with `err`.
int answerWith(int err, int success);

} // namespace emulator
