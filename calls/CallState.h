#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/DelayedCall.h"

namespace velto::calls {

// One call under way, whoever waits for it. Whatever ends it first has ended it: the reply, a refusal, the end of the
// connection, its time, or whoever takes it back.
//
// Thread-safe.
class CallState final : public std::enable_shared_from_this<CallState> {
 public:
  using Result = Outcome<NSDictionary>;
  using Completion = std::function<void(Result)>;
  // Runs a task where callbacks run.
  using Perform = std::function<void(std::function<void()>)>;

  explicit CallState(Perform perform) : perform_(std::move(perform)) {}
  CallState(const CallState&) = delete;
  CallState& operator=(const CallState&) = delete;

  // Once. From now on its time runs, and it may be taken back.
  void begin(std::optional<std::chrono::nanoseconds> timeout, const std::stop_token& stop);
  // What tells the other end that nobody waits any more: called once if the call ends by its time or is taken back.
  // False when it has ended.
  bool setTellOther(std::function<void()> tellOther);
  // Asked when the other end has gone, before that ends the call: true when the call is made again.
  void setMakeAgain(std::function<bool()> makeAgain);
  // What is left of its time; nothing when that has no end.
  std::optional<std::chrono::nanoseconds> timeLeft() const;
  // False when it had ended before. Never blocks, and runs nothing of the user's here.
  bool end(Result result);
  // The same, and tells the other end that nobody waits any more.
  void endHere(Result result);
  // Takes it back.
  void cancel();

  bool hasEnded() const;
  // Sleeps until it has ended. Copies what it ended with.
  Result wait();
  // The completion is called once: where callbacks run, or, if it never blocks, on the thread that ends the call; here
  // and now if it has ended. One only.
  void whenEnded(Completion completion, bool neverBlocks);

 private:
  using StopCallback = std::stop_callback<std::function<void()>>;

  bool isMadeAgain(const Result& result);
  void complete(Completion completion, bool neverBlocks, Result result) const;

  const Perform perform_;
  const NSCondition condition_ = NSCondition::condition();
  std::optional<Result> result_ VELTO_GUARDED_BY(condition_);
  Completion completion_ VELTO_GUARDED_BY(condition_);
  bool neverBlocks_ VELTO_GUARDED_BY(condition_) = false;
  std::optional<std::chrono::steady_clock::time_point> deadline_ VELTO_GUARDED_BY(condition_);
  std::function<bool()> makeAgain_ VELTO_GUARDED_BY(condition_);
  std::function<void()> tellOther_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<xpc::DelayedCall> timer_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<StopCallback> stop_ VELTO_GUARDED_BY(condition_);
};

}  // namespace velto::calls
