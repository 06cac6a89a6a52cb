#pragma once

#include <atomic>
#include <cerrno>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::testing {

// A kernel that has only so many threads to give, and counts how often it is asked for one and waited for.
class FewThreads final : public system::SystemCalls {
 public:
  explicit FewThreads(int threads) : left(threads) { system::replaceSystemCalls(this); }

  int startThread(void* (*run)(void*), void* argument) override {
    if (left.fetch_sub(1) > 0) return system::SystemCalls::startThread(run, argument);
    left.fetch_add(1);
    ++refusals;
    return EAGAIN;
  }
  int epollWait(int epoll, epoll_event* events, int capacity) override {
    ++waits;
    return system::SystemCalls::epollWait(epoll, events, capacity);
  }

  std::atomic<int> left;
  std::atomic<int> refusals{0};
  std::atomic<int> waits{0};
};

}  // namespace velto::testing
