#pragma once

#include <string_view>

namespace velto::testing {

// What must be heard when a process dies: one row for each phase in which it can die. The phase goes by what the dead
// one had said and heard, frame by frame, never by what the survivor makes of it.

// What a synchronous send without a time-out, from the survivor to the dead one, comes to.
enum class Answer {
  // Never sent: the survivor knows of no connection.
  none,
  reply,
  // Code 6 "Timed out waiting": the wait had begun.
  timedOut,
  // That, or code 2 "Connection is not available": the end may have come first.
  timedOutOrUnavailable,
};

struct Row {
  std::string_view phase;
  // What the delegate hears of the connection, in this order: "ready", "message", "interrupted", "invalidated",
  // "unavailable" (Listener not available). Calls that were not settled are counted apart.
  std::string_view hears;
  // Of its own link to the broker: "interrupted", "invalidated".
  std::string_view hearsOfLink;
  Answer send;
  // Proxy errors: calls that were handed over and never settled.
  std::size_t unsettledLeast;
  std::size_t unsettledMost;
  // Lines of level 0, in any order, with "|" between them; those that come with a proxy error, with a frame cut short
  // and with a refused send are counted apart.
  std::string_view log;
  // A client: whether waitUntilReady() says yes. A listener: whether its connectionReady() ran.
  bool ready;
  // A client: connections, endpoint and proxy let go of. A listener: nothing in its tables, the connection not active.
  bool closed;
};

// A client dies; its listener survives.
inline constexpr Row kClientDies[] = {
    {"before its first call arrived", "", "", Answer::none, 0, 0, "", false, true},
    {"called", "ready interrupted invalidated", "", Answer::timedOutOrUnavailable, 0, 3,
     "VeltoConnection connection interrupted", true, true},
    {"sent its message", "ready message interrupted invalidated", "", Answer::timedOutOrUnavailable, 0, 3,
     "VeltoConnection connection interrupted", true, true},
    {"was asked", "ready message interrupted invalidated", "", Answer::timedOut, 1, 1,
     "VeltoConnection connection interrupted", true, true},
    {"answered", "ready message interrupted invalidated", "", Answer::reply, 0, 0,
     "VeltoConnection connection interrupted", true, true},
    {"closed", "ready message invalidated", "", Answer::reply, 0, 0, "", true, true},
};

// A listener dies; its client survives. (The name in the log is the tests'.)
inline constexpr Row kListenerDies[] = {
    {"before the look-up", "unavailable", "", Answer::none, 0, 0, "Endpoint for doomed is Nill", false, false},
    {"could not be reached", "invalidated", "invalidated", Answer::none, 1, 1, "Daemon connection invalidated", false,
     true},
    {"before it introduced itself", "interrupted invalidated", "invalidated", Answer::none, 0, 1,
     "Daemon connection invalidated|Listener connection interrupted", false, true},
    {"introduced itself", "ready interrupted invalidated", "invalidated", Answer::timedOutOrUnavailable, 0, 1,
     "Daemon connection invalidated|Listener connection interrupted", true, true},
    {"was asked", "ready interrupted invalidated", "invalidated", Answer::timedOut, 1, 1,
     "Daemon connection invalidated|Listener connection interrupted", true, true},
    {"answered", "ready interrupted invalidated", "invalidated", Answer::reply, 0, 0,
     "Daemon connection invalidated|Listener connection interrupted", true, true},
    {"sent its message", "ready message interrupted invalidated", "invalidated", Answer::reply, 0, 0,
     "Daemon connection invalidated|Listener connection interrupted", true, true},
    {"closed", "ready message invalidated", "invalidated", Answer::reply, 0, 0, "Daemon connection invalidated", true,
     true},
};

// The broker dies; a client survives. Once it is ready, the connection to its listener does not notice.
inline constexpr Row kBrokerDies[] = {
    {"could not be reached", "", "invalidated", Answer::none, 1, 1, "Daemon connection invalidated", false, false},
    {"before it answered the look-up", "", "interrupted invalidated", Answer::none, 1, 1,
     "Daemon connection interrupted|Daemon connection invalidated", false, false},
    {"answered the look-up", "ready message", "interrupted invalidated", Answer::reply, 0, 0,
     "Daemon connection interrupted|Daemon connection invalidated", true, false},
};

}  // namespace velto::testing
