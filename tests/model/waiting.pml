/* Synchronous sends, their replies, their deadlines and the close of their connection, at either end.
 *
 * Each request has a condition. The sender registers the condition with its connection, locks it, and then tests and
 * waits until there is a reply, the deadline has passed or the connection is gone. The test for the last takes the
 * registry's monitor while the condition is locked, so whoever closes the connection must not lock a condition while it
 * holds the monitor: it signals without. What makes that safe is the promise of the condition: a signal that is sent
 * while a thread holds the lock ends that thread's next wait.
 *
 * The model runs every interleaving of two senders, one with a deadline and one without, with their replies and with
 * two threads that close at once. It ends in an invalid state when a sender is stranded, and breaks an assertion when a
 * reply is lost or the locks are taken in the wrong order.
 *
 * Compile with one of
 *   CLIENT    sends first, registers then; the registry as a whole is dropped by the close
 *   LISTENER  registers first, sends then; the close takes the entry of one connection out of the registry
 * and with any of
 *   NEVER_CLOSED               nobody closes, and every request gets its reply
 *   WITHOUT_PROMISE            signals that nobody sleeps for are lost, as with an ordinary condition variable
 *   CLOSE_LOCKS_CONDITION      the close locks each condition that it signals, inside the monitor
 *   REPLY_IS_NOT_REMEMBERED    the reply is signalled, but no flag is set
 */

#define SENDERS 2
#define HAS_DEADLINE(i) (i == 0)

/* Conditions. `signalled` is whether a signal has come since the lock was taken. */
bool isLocked[SENDERS];
bool signalled[SENDERS];
bool sleeps[SENDERS];

/* What a sender and its reply handler share. */
bool hasReplied[SENDERS];
bool hasReply[SENDERS];

/* The connection. */
bool monitorIsHeld;
byte monitorHolder;
bool isOpen = true;               /* its entry stands in the registry */
bool hasProxy = true;
bool registered[SENDERS];

/* The world. */
bool wasSent[SENDERS];
bool deadlinePassed[SENDERS];
bool wasRefused[SENDERS];

inline enterMonitor() {
  atomic { !monitorIsHeld -> monitorIsHeld = true; monitorHolder = _pid }
}
inline leaveMonitor() {
  atomic { monitorIsHeld = false; monitorHolder = 0 }
}

/* The order of the locks: a condition first, the monitor second. */
inline lockCondition(i) {
  assert(!(monitorIsHeld && monitorHolder == _pid));
  atomic { !isLocked[i] -> isLocked[i] = true; signalled[i] = false }
}
inline unlockCondition(i) {
  isLocked[i] = false
}
inline signalCondition(i) {
#ifdef WITHOUT_PROMISE
  atomic { if :: sleeps[i] -> signalled[i] = true :: else -> skip fi }
#else
  signalled[i] = true
#endif
}
inline waitForSignal(i) {
  atomic { sleeps[i] = true; isLocked[i] = false };
  (signalled[i] || (HAS_DEADLINE(i) && deadlinePassed[i]));
  sleeps[i] = false;
  lockCondition(i)
}

inline send(i) {
  /* Without a proxy there is nobody to send to. */
  if
  :: atomic { hasProxy -> wasSent[i] = true }
  :: atomic { !hasProxy -> wasRefused[i] = true }
  fi
}
inline register(i) {
  enterMonitor();
  if :: isOpen -> registered[i] = true :: else -> skip fi;
  leaveMonitor()
}
inline unregister(i) {
  enterMonitor();
  registered[i] = false;
  leaveMonitor()
}
/* Whether the sender may go on waiting. */
inline testWhetherActive(i, isActive) {
  enterMonitor();
#ifdef CLIENT
  isActive = isOpen && registered[i];
#else
  isActive = isOpen;
#endif
  leaveMonitor()
}

proctype Sender(byte i) {
  bool isActive, hasError, returnsReply;
#ifdef CLIENT
  send(i);
  if :: wasRefused[i] -> goto returned :: else -> register(i) fi;
#else
  register(i);
  send(i);
  if :: wasRefused[i] -> goto returned :: else -> skip fi;
#endif
  lockCondition(i);
  do
  :: (HAS_DEADLINE(i) && deadlinePassed[i]) || hasReplied[i] -> break
  :: else ->
     testWhetherActive(i, isActive);
     if :: !isActive -> break :: else -> isActive = false fi;
     waitForSignal(i)
  od;
  /* A reply that has come is never reported as a failure. */
  hasError = !hasReplied[i];
  unlockCondition(i);
  unregister(i);
  returnsReply = hasReply[i];
  assert(returnsReply || hasError);
#ifdef NEVER_CLOSED
  /* Then only the deadline can end a wait without its reply. */
  assert(returnsReply || (HAS_DEADLINE(i) && deadlinePassed[i]));
#endif
returned:
  skip
}

/* The other end answers, or does not. */
proctype Reply(byte i) {
  wasSent[i] || wasRefused[i];
  if
  :: wasRefused[i] -> skip
#ifndef NEVER_CLOSED
  :: wasSent[i] -> skip
#endif
  :: wasSent[i] ->
     lockCondition(i);
#ifndef REPLY_IS_NOT_REMEMBERED
     hasReplied[i] = true;
#endif
     hasReply[i] = true;
     signalCondition(i);
     unlockCondition(i)
  fi
}

/* Time passes: it may do so before, during and after everything else. */
proctype Deadline(byte i) {
  deadlinePassed[i] = true
}

proctype Close() {
  byte each;
#ifdef LISTENER
  /* This end drops its proxy before it wakes anybody. */
  hasProxy = false;
#endif
  enterMonitor();
#ifdef LISTENER
  isOpen = false;
#endif
  for (each : 0 .. SENDERS - 1) {
    if
    :: registered[each] ->
#ifdef CLOSE_LOCKS_CONDITION
       lockCondition(each);
#endif
       signalCondition(each);
#ifdef CLOSE_LOCKS_CONDITION
       unlockCondition(each);
#endif
    :: else -> skip
    fi
  };
  each = 0;
#ifdef CLIENT
  isOpen = false;
#endif
  leaveMonitor();
#ifdef CLIENT
  hasProxy = false
#endif
}

init {
  byte each;
  atomic {
    for (each : 0 .. SENDERS - 1) {
      run Sender(each);
      run Reply(each)
    };
    run Deadline(0);
#ifndef NEVER_CLOSED
    run Close();
    run Close()
#endif
  }
}
