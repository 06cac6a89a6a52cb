// The one record of a test on the platform double. Lines of all kinds go into one list, since the order between them is
// what the tests are about.

#include "tests/conformance/double/Journal.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/Waiting.h"

namespace velto::testing {

void Journal::write(const std::string& line) {
  Observer observer;
  {
    MutexLock lock(mutex_);
    lines_.push_back(line);
    observer = observer_;
  }
  changed_.notify_all();
  if (observer) observer(line);
}

Journal::Lines Journal::lines() const {
  MutexLock lock(mutex_);
  return lines_;
}

Journal::Lines Journal::beginningWith(const std::string& start) const {
  Lines found;
  for (std::string& line : lines()) {
    if (line.starts_with(start)) found.push_back(std::move(line));
  }
  return found;
}

Journal::Lines Journal::take() {
  MutexLock lock(mutex_);
  return std::exchange(lines_, {});
}

void Journal::observe(Observer observer) {
  MutexLock lock(mutex_);
  std::swap(observer_, observer);
}

bool Journal::waitFor(const std::string& line) const {
  const auto end = std::chrono::steady_clock::now() + kBound;
  MutexLock lock(mutex_);
  bool inTime = true;
  while (std::ranges::find(lines_, line) == lines_.end()) {
    if (!inTime) {
      std::string all;
      for (const std::string& each : lines_) all += "\n  " + each;
      ADD_FAILURE() << "no line '" << line << "' in the journal:" << all;
      return false;
    }
    inTime = lock.waitUntil(changed_, end) == std::cv_status::no_timeout;
  }
  return true;
}

}  // namespace velto::testing
