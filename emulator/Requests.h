#pragma once

namespace emulator {

/// Answers a request as ioctl(2) does.
int answerRequest(unsigned long command, void* record);

} // namespace emulator
