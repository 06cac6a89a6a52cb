// The delegate of the tests. A callback is written down before its reaction runs, so that a test that saw the event may
// rely on the reaction having begun at the earliest, never at the latest.

#include "tests/support/RecordingDelegate.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

namespace velto::testing {

bool Event::isError(const std::string& text) const {
  return kind == Kind::error && error.localizedDescription().view() == text;
}

std::string Event::description() const {
  const std::string who = connectionID.description().string();
  switch (kind) {
    case Kind::ready:
      return "ready " + who;
    case Kind::message:
      return "message from " + who + ": " + message.description().string();
    case Kind::error:
      return "error of " + who + ": " + error.description().string();
  }
  return "";
}

void RecordingDelegate::onReady(std::function<void(NSString)> reaction) {
  MutexLock lock(mutex_);
  onReady_ = std::move(reaction);
}

void RecordingDelegate::onMessage(std::function<void(NSDictionary, NSString, VeltoReplyHandler)> reaction) {
  MutexLock lock(mutex_);
  onMessage_ = std::move(reaction);
}

void RecordingDelegate::onError(std::function<void(NSString, NSError)> reaction) {
  MutexLock lock(mutex_);
  onError_ = std::move(reaction);
}

void RecordingDelegate::echo() {
  onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) { reply(message); });
}

RecordingDelegate::Events RecordingDelegate::events() const {
  MutexLock lock(mutex_);
  return events_;
}

RecordingDelegate::Events RecordingDelegate::ofKind(Event::Kind kind) const {
  Events found;
  for (Event& event : events()) {
    if (event.kind == kind) found.push_back(std::move(event));
  }
  return found;
}

std::size_t RecordingDelegate::errorCount(const std::string& text) const {
  const Events all = events();
  return static_cast<std::size_t>(
      std::count_if(all.begin(), all.end(), [&](const Event& event) { return event.isError(text); }));
}

bool RecordingDelegate::waitUntil(const std::string& what, const std::function<bool(const Events&)>& predicate) const {
  const auto end = std::chrono::steady_clock::now() + kBound;
  MutexLock lock(mutex_);
  bool inTime = true;
  while (!predicate(events_)) {
    if (!inTime) {
      std::string heard;
      for (const Event& event : events_) heard += "\n  " + event.description();
      ADD_FAILURE() << "the delegate waited in vain for " << what << "; it heard:" << heard;
      return false;
    }
    inTime = lock.waitUntil(changed_, end) == std::cv_status::no_timeout;
  }
  return true;
}

bool RecordingDelegate::waitForCount(Event::Kind kind, std::size_t count) const {
  static constexpr const char* kNames[] = {"readies", "messages", "errors"};
  const std::string what = std::to_string(count) + " " + kNames[static_cast<int>(kind)];
  return waitUntil(what, [=](const Events& events) {
    const auto seen = std::count_if(events.begin(), events.end(), [=](const Event& one) { return one.kind == kind; });
    return static_cast<std::size_t>(seen) >= count;
  });
}

Event RecordingDelegate::waitForError(const std::string& text, std::size_t count) const {
  Event found{Event::Kind::error, nil, nil, {}, nil};
  waitUntil("the error '" + text + "'", [&](const Events& events) {
    std::size_t seen = 0;
    for (const Event& event : events) {
      if (!event.isError(text)) continue;
      found = event;
      ++seen;
    }
    return seen >= count;
  });
  return found;
}

void RecordingDelegate::quiesce() {
  onReady({});
  onMessage({});
  onError({});
  const bool quiet = eventually([this] {
    MutexLock lock(mutex_);
    return reacting_ == 0;
  });
  if (!quiet) giveUp("a delegate's reaction never returned");
}

void RecordingDelegate::connectionReady(NSString connectionID) {
  record({Event::Kind::ready, connectionID, nil, {}, nil});
  react(&RecordingDelegate::onReady_, connectionID);
}

void RecordingDelegate::receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) {
  record({Event::Kind::message, fromConnection, message, usingHandler, nil});
  react(&RecordingDelegate::onMessage_, message, fromConnection, std::move(usingHandler));
}

void RecordingDelegate::connectionError(NSString connectionID, NSError error) {
  record({Event::Kind::error, connectionID, nil, {}, error});
  react(&RecordingDelegate::onError_, connectionID, error);
}

template <class... Arguments>
void RecordingDelegate::react(std::function<void(Arguments...)> RecordingDelegate::*reaction, Arguments... arguments) {
  std::function<void(Arguments...)> copy;
  {
    MutexLock lock(mutex_);
    copy = this->*reaction;
    ++reacting_;
  }
  if (copy) copy(std::move(arguments)...);
  MutexLock lock(mutex_);
  --reacting_;
}

void RecordingDelegate::record(Event event) {
  {
    MutexLock lock(mutex_);
    events_.push_back(std::move(event));
  }
  changed_.notify_all();
}

}  // namespace velto::testing
