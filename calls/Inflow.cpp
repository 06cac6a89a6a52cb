#include "calls/Inflow.h"

#include <atomic>
#include <utility>

#include "calls/ItemSize.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

namespace {

// Of all streams of this process.
constinit std::atomic<std::size_t> bytesOfAll{0};

}  // namespace

Inflow::~Inflow() {
  const ConditionLock lock(condition_);
  for (const Kept& each : kept_) bytesOfAll -= each.bytes;
}

void Inflow::setGrant(Grant grant) {
  const ConditionLock lock(condition_);
  grant_ = std::move(grant);
}

std::optional<CallError> Inflow::put(NSDictionary item) {
  const std::size_t bytes = sizeOfItem(item);
  Reader reader;
  Taken taken;
  std::function<void()> complete;
  {
    const ConditionLock lock(condition_);
    if (result_ || discards_) return std::nullopt;
    if (usedItems_ >= limits::kStreamItems || usedBytes_ >= limits::kStreamBytes) {
      return CallError(Failure::overLimit, "more came in the stream than was allowed");
    }
    if (bytesOfAll + bytes > limits::kStreamBytesOfProcess) {
      return CallError(Failure::overLimit, "the streams of this process keep too much");
    }
    bytesOfAll += bytes;
    ++usedItems_;
    usedBytes_ += bytes;
    kept_.push_back({std::move(item), bytes});
    if (reader_) {
      reader.swap(reader_);
      taken = take();
    }
    if (++came_ == expected_) complete.swap(complete_);
    condition_.signal();
  }
  if (reader) reader(hand(std::move(taken)));
  if (complete) complete();
  return std::nullopt;
}

void Inflow::expect(std::uint64_t items, std::function<void()> complete) {
  {
    const ConditionLock lock(condition_);
    if (came_ < items && !result_) {
      expected_ = items;
      complete_ = std::move(complete);
      return;
    }
  }
  complete();
}

void Inflow::end(Result result) {
  Reader reader;
  std::function<void()> complete;
  {
    const ConditionLock lock(condition_);
    if (result_) return;
    result_ = std::move(result);
    // Whoever waits has read everything.
    reader.swap(reader_);
    complete.swap(complete_);
    condition_.signal();
  }
  if (reader) reader(std::nullopt);
}

// The other end is told in large steps, but before it can be behind with nothing left to read here.
Inflow::Taken Inflow::take() {
  Taken taken;
  taken.item = std::move(kept_.front().item);
  const std::size_t bytes = kept_.front().bytes;
  kept_.pop_front();
  bytesOfAll -= bytes;
  ++readItems_;
  readBytes_ += bytes;
  if (readItems_ < limits::kStreamItems / 2 && readBytes_ < limits::kStreamBytes / 2) return taken;
  taken.items = std::exchange(readItems_, 0);
  taken.bytes = std::exchange(readBytes_, 0);
  usedItems_ -= taken.items;
  usedBytes_ -= taken.bytes;
  return taken;
}

Inflow::Item Inflow::hand(Taken taken) {
  Grant grant;
  if (taken.items > 0) {
    const ConditionLock lock(condition_);
    if (!result_) grant = grant_;
  }
  if (grant) grant(taken.items, taken.bytes);
  return std::move(taken.item);
}

Inflow::Item Inflow::waitForNext() {
  Taken taken;
  {
    const ConditionLock lock(condition_);
    while (kept_.empty() && !result_) condition_.wait();
    // A signal wakes one: others may wait for the end.
    condition_.signal();
    if (kept_.empty()) return std::nullopt;
    taken = take();
  }
  return hand(std::move(taken));
}

void Inflow::whenNext(Reader reader) {
  Taken taken;
  {
    const ConditionLock lock(condition_);
    if (kept_.empty() && !result_) {
      reader_ = std::move(reader);
      return;
    }
    if (!kept_.empty()) taken = take();
  }
  reader(hand(std::move(taken)));
}

Inflow::Result Inflow::waitForEnd() {
  const ConditionLock lock(condition_);
  while (!result_) condition_.wait();
  condition_.signal();
  return *result_;
}

void Inflow::discard() {
  std::deque<Kept> kept;
  const ConditionLock lock(condition_);
  discards_ = true;
  kept.swap(kept_);
  for (const Kept& each : kept) bytesOfAll -= each.bytes;
}

}  // namespace velto::calls
