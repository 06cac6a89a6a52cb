#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/xpc/system/Descriptor.h"

// What the tests of the connection layer share. A wait here is for an event; its bound is only there to end a test that
// has failed.
namespace velto::testing {

inline constexpr std::chrono::seconds kGenerous{30};

// Gets values from other threads, in order.
template <class T>
class Inbox {
 public:
  void put(T value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    arrived_.notify_all();
  }
  // The first `count` values; fewer only after the bound.
  std::vector<T> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, kGenerous, [&] { return values_.size() >= count; });
    EXPECT_GE(values_.size(), count) << "waited in vain";
    return values_;
  }
  std::vector<T> soFar() {
    const std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<T> values_;
};

// A runtime directory of the test's own.
class PrivateRuntimeDirectory {
 public:
  PrivateRuntimeDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "velto-test-XXXXXX").string();
    if (::mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "no directory can be made: " << path_;
    if (const char* before = ::getenv("XDG_RUNTIME_DIR")) before_ = before;
    ::setenv("XDG_RUNTIME_DIR", path_.c_str(), 1);
  }
  ~PrivateRuntimeDirectory() {
    before_.empty() ? ::unsetenv("XDG_RUNTIME_DIR") : ::setenv("XDG_RUNTIME_DIR", before_.c_str(), 1);
    std::filesystem::remove_all(path_);
  }
  PrivateRuntimeDirectory(const PrivateRuntimeDirectory&) = delete;
  PrivateRuntimeDirectory& operator=(const PrivateRuntimeDirectory&) = delete;

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
  std::string before_;
};

// Descriptors that this process has open.
inline std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// Waits until a condition holds that no event announces.
inline bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kGenerous;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    ::usleep(1000);
  }
  return true;
}

// Two ends of a connected stream, non-blocking.
inline std::pair<system::Descriptor, system::Descriptor> socketPair() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  return {system::Descriptor(ends[0]), system::Descriptor(ends[1])};
}

}  // namespace velto::testing
