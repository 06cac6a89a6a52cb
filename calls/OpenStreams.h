#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "calls/StreamState.h"
#include "platform/foundation/NSNumber.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::calls {

// The streams of one connection, by their calls: one of this end by its number, one of the other end by its number with
// a minus. Thread-safe; a stream is told nothing with the lock held.
class OpenStreams {
 public:
  // For a call of this end.
  void add(std::int64_t call, const std::shared_ptr<StreamState>& stream);
  // For a call of the other end whose turn has come. False when that has too many, or has one under the number.
  bool addForPeer(std::int64_t number, const std::shared_ptr<StreamState>& stream);
  void remove(std::int64_t call);

  // Null when there is none, as when it has ended.
  std::shared_ptr<StreamState> find(std::int64_t call) const;
  // As the other end names it, whose calls are those of others here.
  std::shared_ptr<StreamState> named(const NSNumber& call) const;

  // Nothing more comes in the stream of that call of the other end. One that has not had its turn is remembered, unless
  // there are more than can wait.
  void finish(const NSNumber& call);
  void fail(const CallError& error);

 private:
  mutable Mutex mutex_;
  std::unordered_map<std::int64_t, std::weak_ptr<StreamState>> streams_ VELTO_GUARDED_BY(mutex_);
  std::size_t ofPeer_ VELTO_GUARDED_BY(mutex_) = 0;
  // The greatest number of the other end's that has had its turn, and those finished before they have.
  std::int64_t lastOfPeer_ VELTO_GUARDED_BY(mutex_) = 0;
  std::unordered_set<std::int64_t> finished_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::calls
