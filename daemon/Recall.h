#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto {

// Asks all processes that have listeners to register them again: once, when a broker has just started.
//
// Thread-safe. Lives until all have answered, or are gone; nobody needs to hold it.
class Recall : public std::enable_shared_from_this<Recall> {
 public:
  // Calls `done` once: when all have answered or are gone, or the time is over. Those that are late still register.
  static void begin(std::chrono::nanoseconds patience, std::function<void()> done);

 private:
  explicit Recall(std::function<void()> done) : done_(std::move(done)) {}
  void askNext();
  void ask(const NSString& name);
  void ended(const NSString& name, bool hasAnswered);
  void finish();

  // Asked at the same time.
  static constexpr std::size_t kMostAtOnce = 64;

  Mutex mutex_;
  std::function<void()> done_ VELTO_GUARDED_BY(mutex_);
  std::deque<NSString> names_ VELTO_GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<NSXPCConnection>> asked_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<xpc::DelayedCall> timeOut_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
