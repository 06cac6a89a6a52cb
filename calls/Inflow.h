#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDictionary.h"

namespace velto::calls {

// The items of a stream that have come and are not read.
//
// Thread-safe. Nothing of the user's runs in here, and nothing is called with the lock held.
class Inflow {
 public:
  using Item = std::optional<NSDictionary>;
  using Result = Outcome<NSDictionary>;
  using Reader = std::function<void(Item)>;
  // Tells the other end that it may send so much more.
  using Grant = std::function<void(std::size_t items, std::size_t bytes)>;

  Inflow() = default;
  ~Inflow();
  Inflow(const Inflow&) = delete;
  Inflow& operator=(const Inflow&) = delete;

  // Once, before anything can come.
  void setGrant(Grant grant);

  // An item has come. Nothing, or why it is not kept: its sender was allowed less, or this process keeps too much.
  std::optional<CallError> put(NSDictionary item);
  // Calls `complete` as soon as so many have come in all: at once, or when the last comes.
  void expect(std::uint64_t items, std::function<void()> complete);
  // No more comes. What has come can be read. The first end counts.
  void end(Result result);

  // Sleeps until there is an item, or the end.
  Item waitForNext();
  // Calls the reader with the next item, or at the end; here and now if that is known. One at a time.
  void whenNext(Reader reader);
  // Sleeps until the end.
  Result waitForEnd();
  // Lets go of what is not read, and of all that comes.
  void discard();

 private:
  struct Kept {
    NSDictionary item;
    std::size_t bytes = 0;
  };
  // What the other end is told now, if anything.
  struct Taken {
    Item item;
    std::size_t items = 0;
    std::size_t bytes = 0;
  };

  Taken take() VELTO_REQUIRES(condition_);
  Item hand(Taken taken);

  const NSCondition condition_ = NSCondition::condition();
  Grant grant_ VELTO_GUARDED_BY(condition_);
  std::deque<Kept> kept_ VELTO_GUARDED_BY(condition_);
  // Of what was allowed: what has come and is not allowed again.
  std::size_t usedItems_ VELTO_GUARDED_BY(condition_) = 0;
  std::size_t usedBytes_ VELTO_GUARDED_BY(condition_) = 0;
  // Of that, what has been read.
  std::size_t readItems_ VELTO_GUARDED_BY(condition_) = 0;
  std::size_t readBytes_ VELTO_GUARDED_BY(condition_) = 0;
  std::uint64_t came_ VELTO_GUARDED_BY(condition_) = 0;
  std::optional<std::uint64_t> expected_ VELTO_GUARDED_BY(condition_);
  std::function<void()> complete_ VELTO_GUARDED_BY(condition_);
  std::optional<Result> result_ VELTO_GUARDED_BY(condition_);
  Reader reader_ VELTO_GUARDED_BY(condition_);
  bool discards_ VELTO_GUARDED_BY(condition_) = false;
};

}  // namespace velto::calls
