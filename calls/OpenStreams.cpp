#include "calls/OpenStreams.h"

#include <algorithm>
#include <limits>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

void OpenStreams::add(std::int64_t call, const std::shared_ptr<StreamState>& stream) {
  MutexLock lock(mutex_);
  streams_[call] = stream;
}

bool OpenStreams::addForPeer(std::int64_t number, const std::shared_ptr<StreamState>& stream) {
  {
    MutexLock lock(mutex_);
    lastOfPeer_ = std::max(lastOfPeer_, number);
    const bool isFinished = finished_.erase(number) > 0;
    if (ofPeer_ >= limits::kStreamsOfOnePeer || !streams_.emplace(-number, stream).second) return false;
    ++ofPeer_;
    if (!isFinished) return true;
  }
  stream->in().end(NSDictionary::dictionary());
  return true;
}

void OpenStreams::remove(std::int64_t call) {
  MutexLock lock(mutex_);
  if (streams_.erase(call) > 0 && call < 0) --ofPeer_;
}

std::shared_ptr<StreamState> OpenStreams::find(std::int64_t call) const {
  MutexLock lock(mutex_);
  const auto place = streams_.find(call);
  return place == streams_.end() ? nullptr : place->second.lock();
}

std::shared_ptr<StreamState> OpenStreams::named(const NSNumber& call) const {
  const auto number = call.to<std::int64_t>();
  return number && *number != std::numeric_limits<std::int64_t>::min() ? find(-*number) : nullptr;
}

void OpenStreams::finish(const NSNumber& call) {
  const std::int64_t number = call.to<std::int64_t>().value_or(0);
  if (number <= 0) return;
  std::shared_ptr<StreamState> stream;
  {
    MutexLock lock(mutex_);
    const auto place = streams_.find(-number);
    if (place != streams_.end()) {
      stream = place->second.lock();
    } else if (number > lastOfPeer_ && finished_.size() < limits::kUndeliveredCalls) {
      finished_.insert(number);
    }
  }
  if (stream) stream->in().end(NSDictionary::dictionary());
}

void OpenStreams::fail(const CallError& error) {
  std::unordered_map<std::int64_t, std::weak_ptr<StreamState>> streams;
  {
    MutexLock lock(mutex_);
    streams = streams_;
  }
  for (const auto& [call, weak] : streams) {
    if (const auto stream = weak.lock()) stream->fail(error);
  }
}

}  // namespace velto::calls
