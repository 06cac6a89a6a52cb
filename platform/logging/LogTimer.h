#pragma once

#include <chrono>

namespace velto {

// By this a higher layer that has timers offers to call a function once, after a time, on any thread: the default sink
// asks for it when lines were held back or lost, so that their number is told when no further line comes. nullptr: the
// number waits for the next line. What is asked for never blocks and runs no user code. Asked on a thread that logs,
// without a lock of logging held; must not raise. Thread-safe.
void setLogTimer(void (*timer)(std::chrono::milliseconds delay, void (*function)())) noexcept;

bool hasLogTimer() noexcept;
// Asks. False: there is nobody to ask.
bool askLogTimer(std::chrono::milliseconds delay, void (*function)()) noexcept;

}  // namespace velto
