#include "calls/WaitingCalls.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace velto::calls {

bool WaitingCalls::add(const WaitingCall& call, std::vector<WaitingCall>& ended) {
  if (calls_.size() >= looksAt_) takeEnded(ended);
  if (calls_.size() >= most_) return false;
  calls_.push_back(call);
  return true;
}

void WaitingCalls::takeEnded(std::vector<WaitingCall>& ended) {
  const auto over = std::stable_partition(calls_.begin(), calls_.end(),
                                          [](const WaitingCall& each) { return !each.state->hasEnded(); });
  std::move(over, calls_.end(), std::back_inserter(ended));
  calls_.erase(over, calls_.end());
  looksAt_ = std::clamp(2 * calls_.size(), kFirstLook, most_);
}

WaitingCall WaitingCalls::takeFirst() {
  WaitingCall first = std::move(calls_.front());
  calls_.pop_front();
  return first;
}

std::deque<WaitingCall> WaitingCalls::takeAll() noexcept {
  looksAt_ = kFirstLook;
  return std::exchange(calls_, {});
}

}  // namespace velto::calls
