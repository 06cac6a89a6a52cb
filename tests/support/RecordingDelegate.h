#pragma once

#include <condition_variable>
#include <functional>
#include <string>
#include <vector>

#include "VeltoIPC/VeltoIPCDelegate.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// One callback and its arguments.
struct Event {
  enum class Kind { ready, message, error };

  Kind kind;
  NSString connectionID;
  NSDictionary message;
  VeltoReplyHandler reply;
  NSError error;

  bool isError(const std::string& text) const;
  std::string description() const;
};

// A delegate that writes down every callback, then does what its test told it to. Thread-safe.
class RecordingDelegate final : public VeltoIPCDelegate {
 public:
  using Events = std::vector<Event>;

  // What to do in a callback, on its thread and after it was written down. At first: nothing.
  void onReady(std::function<void(NSString)> reaction);
  void onMessage(std::function<void(NSDictionary, NSString, VeltoReplyHandler)> reaction);
  void onError(std::function<void(NSString, NSError)> reaction);
  // Answers every message with itself.
  void echo();

  Events events() const;
  // All of a kind, in order.
  Events readies() const { return ofKind(Event::Kind::ready); }
  Events messages() const { return ofKind(Event::Kind::message); }
  Events errors() const { return ofKind(Event::Kind::error); }
  // The errors with this text.
  std::size_t errorCount(const std::string& text) const;

  // Wait until the events fulfil the predicate; on failure the test fails and shows what came instead.
  bool waitUntil(const std::string& what, const std::function<bool(const Events&)>& predicate) const;
  bool waitForReadies(std::size_t count) const { return waitForCount(Event::Kind::ready, count); }
  bool waitForMessages(std::size_t count) const { return waitForCount(Event::Kind::message, count); }
  bool waitForErrors(std::size_t count) const { return waitForCount(Event::Kind::error, count); }
  // An error with this text has come `count` times; the last such event, or an empty one.
  Event waitForError(const std::string& text, std::size_t count = 1) const;

  // Forgets the reactions, and waits until none is under way any more.
  void quiesce();

  // VeltoIPCDelegate
  void connectionReady(NSString connectionID) override;
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override;
  void connectionError(NSString connectionID, NSError error) override;

 private:
  Events ofKind(Event::Kind kind) const;
  bool waitForCount(Event::Kind kind, std::size_t count) const;
  void record(Event event);
  // Runs a copy of a reaction, which may thus be replaced meanwhile.
  template <class... Arguments>
  void react(std::function<void(Arguments...)> RecordingDelegate::*reaction, Arguments... arguments);

  mutable Mutex mutex_;
  mutable std::condition_variable changed_;
  Events events_ VELTO_GUARDED_BY(mutex_);
  int reacting_ VELTO_GUARDED_BY(mutex_) = 0;
  std::function<void(NSString)> onReady_ VELTO_GUARDED_BY(mutex_);
  std::function<void(NSDictionary, NSString, VeltoReplyHandler)> onMessage_ VELTO_GUARDED_BY(mutex_);
  std::function<void(NSString, NSError)> onError_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
