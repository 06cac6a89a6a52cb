// Only the thread that forks lives in the child, so setting its mask there sets the process's. That costs nothing where
// nobody forks. Opening the mask around every callback would cover posix_spawn, too, but cost two system calls each,
// and let a signal that the program blocks later on, to wait for it, reach a callback instead.

#include "platform/xpc/system/ProgramMask.h"

#include <pthread.h>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto::system {

namespace {

// The lock is taken before a fork, so that the child finds the mask whole.
struct ProgramMask {
  Mutex mutex;
  bool isRegistered VELTO_GUARDED_BY(mutex) = false;
  bool isKept VELTO_GUARDED_BY(mutex) = false;
  sigset_t mask VELTO_GUARDED_BY(mutex){};
};

ProgramMask& programMask() noexcept {
  static ProgramMask& made = *new ProgramMask;
  return made;
}

constinit thread_local bool isThreadOfOurs = false;

void lockProgramMask() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  programMask().mutex.lock();
}

void unlockProgramMask() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  programMask().mutex.unlock();
}

// From here on the child is a program's like any other: what it forks in its turn inherits the mask that it has then.
void becomeProgram() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  ProgramMask& program = programMask();
  if (isThreadOfOurs && program.isKept) ::pthread_sigmask(SIG_SETMASK, &program.mask, nullptr);
  isThreadOfOurs = false;
  program.isKept = false;
  program.mutex.unlock();
}

}  // namespace

void keepProgramMask(const sigset_t& mask) noexcept {
  ProgramMask& program = programMask();
  MutexLock lock(program.mutex);
  if (program.isKept) return;
  program.mask = mask;
  program.isKept = true;
  // Once for all: the child of a fork inherits the handlers.
  if (!program.isRegistered) {
    program.isRegistered = ::pthread_atfork(lockProgramMask, unlockProgramMask, becomeProgram) == 0;
  }
}

void forksWithProgramMask() noexcept {
  isThreadOfOurs = true;
}

}  // namespace velto::system
