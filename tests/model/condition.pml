/* How a condition keeps its promise: a signal that is sent while a thread holds the lock ends that thread's next wait.
 *
 * Beside the lock that callers hold there is a counter of signals. Who locks remembers the counter; a wait lets go of
 * the lock and sleeps, on a variable with a small lock of its own, for as long as the counter has not moved. The
 * operating system's variable is modelled with no promise at all: a notification that nobody sleeps for is lost.
 *
 * Two threads wait for a flag of their own each, which two others set and signal without taking the callers' lock. It
 * ends in an invalid state when a waiter is stranded.
 *
 * Compile with
 *   SIGNAL_TAKES_NO_LOCK       the counter is moved without the small lock
 *   WAIT_FORGETS_THE_COUNTER   a wait remembers the counter only when it begins to sleep
 * to see it fail.
 */

#define WAITERS 2

bool callersLock;
bool sleepersLock;
byte signals;
byte seen;                        /* guarded by the callers' lock */
byte asleep;                      /* threads that sleep on the variable */
byte notified;                    /* of which so many may wake */

bool flag[WAITERS];

inline acquire(lock) { atomic { !lock -> lock = true } }
inline release(lock) { lock = false }

inline lockCondition(mine) {
  acquire(callersLock);
  seen = signals
}

inline waitForSignal(mine) {
#ifndef WAIT_FORGETS_THE_COUNTER
  mine = seen;
#endif
  release(callersLock);
  acquire(sleepersLock);
#ifdef WAIT_FORGETS_THE_COUNTER
  mine = signals;
#endif
  do
  :: signals != mine -> break
  :: else ->
     /* The variable lets go of the lock and sleeps in one step. */
     atomic { asleep++; sleepersLock = false };
     atomic { notified > 0 -> notified--; asleep-- };
     acquire(sleepersLock)
  od;
  release(sleepersLock);
  lockCondition(mine)
}

/* As broadcast() does; each of the waiters here waits for something else. */
inline signalAll() {
#ifdef SIGNAL_TAKES_NO_LOCK
  signals++;
#else
  acquire(sleepersLock);
  signals++;
  release(sleepersLock);
#endif
  atomic { notified = asleep }
}

proctype Waiter(byte i) {
  byte mine;
  lockCondition(mine);
  do
  :: flag[i] -> break
  :: else -> waitForSignal(mine)
  od;
  release(callersLock)
}

proctype Signaller(byte i) {
  flag[i] = true;
  signalAll()
}

init {
  byte each;
  atomic {
    for (each : 0 .. WAITERS - 1) {
      run Waiter(each);
      run Signaller(each)
    }
  }
}
