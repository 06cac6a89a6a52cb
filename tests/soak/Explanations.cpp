// Causes are counted before they act, so an error that comes before its cause has been counted has none.

#include "tests/soak/Explanations.h"

#include <array>
#include <cstdio>
#include <utility>

namespace velto::soak {

namespace {

constexpr std::array<std::pair<const char*, Counter>, 11> kErrors = {{
    {"Daemon connection interrupted", Counter::daemonInterrupted},
    {"Daemon connection invalidated", Counter::daemonInvalidated},
    {"Listener connection interrupted", Counter::listenerInterrupted},
    {"Listener connection invalidated", Counter::listenerInvalidated},
    {"Listener not available", Counter::listenerNotAvailable},
    {"Connection interrupted", Counter::connectionInterrupted},
    {"Connection invalidated", Counter::connectionInvalidated},
    {"Connection is not available", Counter::connectionNotAvailable},
    {"Timed out waiting", Counter::timedOut},
    {"an error of the platform", Counter::platformError},
    {"any other error", Counter::otherError},
}};

}  // namespace

Counter counterOf(const NSError& error) {
  if (error.domain().view() == "org.velto.xpc") return Counter::platformError;
  for (const auto& [text, counter] : kErrors) {
    if (error.localizedDescription().view() == text) return counter;
  }
  return Counter::otherError;
}

const char* nameOf(Counter counter) {
  for (const auto& [text, named] : kErrors) {
    if (named == counter) return text;
  }
  return "";
}

void reportUnexplained(SharedState& shared, const std::string& who, const std::string& what) {
  shared.count(Counter::unexplained);
  std::fprintf(stderr, "unexplained, in %s: %s\n", who.c_str(), what.c_str());
}

void reportWrongReply(SharedState& shared, const std::string& who, const std::string& what) {
  shared.count(Counter::wrongReplies);
  std::fprintf(stderr, "wrong reply, in %s: %s\n", who.c_str(), what.c_str());
}

ConnectionCauses::ConnectionCauses(SharedState& shared, std::size_t listener)
    : shared_(shared),
      listener_(listener),
      brokerKills_(shared.brokerKills),
      listenerKills_(shared.listeners[listener].kills),
      listenerCloses_(shared.listeners[listener].closes),
      wasAvailable_(shared.brokerRuns && shared.listeners[listener].runs &&
                    shared.listeners[listener].registeredWith == brokerKills_ + 1) {}

void ConnectionCauses::heard(const NSError& error) {
  const Counter counter = counterOf(error);
  shared_.count(counter);
  if (explains(counter)) return;
  reportUnexplained(shared_, "a client of listener " + std::to_string(listener_), error.description().string());
}

bool ConnectionCauses::listenerWasKilled() const {
  return !wasAvailable_ || shared_.listeners[listener_].kills != listenerKills_;
}

bool ConnectionCauses::listenerIsGone() const {
  return listenerWasKilled() || shared_.listeners[listener_].closes != listenerCloses_;
}

bool ConnectionCauses::brokerIsGone() const {
  return !wasAvailable_ || shared_.brokerKills != brokerKills_;
}

bool ConnectionCauses::explains(Counter counter) const {
  switch (counter) {
    case Counter::daemonInterrupted:
      return brokerIsGone();
    case Counter::listenerInterrupted:
      return listenerWasKilled();
    case Counter::listenerInvalidated:
    case Counter::connectionNotAvailable:
    case Counter::timedOut:
      return closes_ || listenerIsGone();
    case Counter::listenerNotAvailable:
      return listenerWasKilled() || brokerIsGone();
    case Counter::daemonInvalidated:
    case Counter::platformError:
      return isOver();
    default:
      return false;
  }
}

}  // namespace velto::soak
