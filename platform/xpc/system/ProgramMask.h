#pragma once

#include <signal.h>

namespace velto::system {

// Threads of this library block every signal, and user code runs on them. A program that such code starts with fork and
// exec would inherit that: so the child of a fork made there gets, before fork() returns in it, the mask that the
// program had. Not after posix_spawn, vfork and _Fork, which run no handlers: docs/guide.md, "Threads".

// For whoever starts a thread with all signals blocked: the mask of the thread that starts it. The first one counts,
// until the child of a fork starts threads of its own. Thread-safe.
void keepProgramMask(const sigset_t& mask) noexcept;

// The current thread is one of those.
void forksWithProgramMask() noexcept;

}  // namespace velto::system
