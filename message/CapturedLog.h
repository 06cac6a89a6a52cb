#pragma once

#include <chrono>
#include <condition_variable>
#include <ostream>
#include <string>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {

// For tests: keeps every line that is logged while it lives, whatever its level.
class CapturedLog {
 public:
  struct Line {
    int level;
    std::string text;
    friend bool operator==(const Line&, const Line&) = default;
  };

  CapturedLog() {
    VKTLogSetLevel(VKTLogLevelProgress);
    VKTLogSetSink([this](const VKTLogAnchor&, int level, const NSString& text) { keep({level, text.string()}); });
  }
  ~CapturedLog() {
    VKTLogSetSink({});
    VKTLogSetLevel(VKTLogLevelFailure);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<Line> lines() const {
    MutexLock lock(mutex_);
    return lines_;
  }

  // Whether the line has come, or comes within ten seconds.
  bool waitFor(const Line& line) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    MutexLock lock(mutex_);
    while (!holds(line)) {
      if (lock.waitUntil(changed_, deadline) == std::cv_status::timeout) return holds(line);
    }
    return true;
  }

 private:
  void keep(Line line) {
    MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
  }
  bool holds(const Line& line) const VELTO_REQUIRES(mutex_) {
    for (const Line& each : lines_) {
      if (each == line) return true;
    }
    return false;
  }

  mutable Mutex mutex_;
  std::condition_variable changed_;
  std::vector<Line> lines_ VELTO_GUARDED_BY(mutex_);
};

inline void PrintTo(const CapturedLog::Line& line, std::ostream* out) {
  *out << line.level << ' ' << line.text;
}

}  // namespace velto
