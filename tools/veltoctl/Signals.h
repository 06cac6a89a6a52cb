#pragma once

#include <chrono>
#include <functional>

namespace velto::ctl {

// SIGINT, SIGTERM and SIGHUP, blocked from now on in this thread and those that it makes, and taken in one place. Make
// it before there is any other thread.
class Signals {
 public:
  Signals();

  // Whether one has come, or comes within the time.
  bool wait(std::chrono::nanoseconds patience);
  // Sleeps until one comes, or the condition, which is asked often, is met.
  void waitOr(const std::function<bool()>& condition);
  // Ready to be read once one has come; borrowed.
  int descriptor() const noexcept { return descriptor_; }

 private:
  const int descriptor_;
};

}  // namespace velto::ctl
