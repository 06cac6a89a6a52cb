// A sink of the logging framework that keeps the lines.

#include "tests/support/LogCapture.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <ostream>

#include <gtest/gtest.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

struct LogCapture::State {
  Mutex mutex;
  std::condition_variable changed;
  std::vector<Line> lines VELTO_GUARDED_BY(mutex);

  bool waitUntil(const std::function<bool(const std::vector<Line>&)>& predicate) {
    const auto end = std::chrono::steady_clock::now() + kBound;
    MutexLock lock(mutex);
    while (!predicate(lines)) {
      if (lock.waitUntil(changed, end) == std::cv_status::timeout) return predicate(lines);
    }
    return true;
  }
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  VKTLogSetSink([state = state_](const VKTLogAnchor&, int level, const NSString& text) {
    {
      MutexLock lock(state->mutex);
      state->lines.push_back({level, text.string()});
    }
    state->changed.notify_all();
  });
  VKTLogSetLevel(VKTLogLevelProgress);
}

LogCapture::~LogCapture() {
  VKTLogSetLevel(VKTLogLevelFailure);
  // What is still being closed would write to the output of the next test.
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
}

std::vector<LogCapture::Line> LogCapture::lines() const {
  MutexLock lock(state_->mutex);
  return state_->lines;
}

std::size_t LogCapture::count(int level, const std::string& text) const {
  const std::vector<Line> all = lines();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), Line{level, text}));
}

std::vector<std::string> LogCapture::containing(int level, const std::string& part) const {
  std::vector<std::string> found;
  for (Line& line : lines()) {
    if (line.level == level && line.text.find(part) != std::string::npos) found.push_back(std::move(line.text));
  }
  return found;
}

void LogCapture::clear() {
  MutexLock lock(state_->mutex);
  state_->lines.clear();
}

bool LogCapture::waitFor(int level, const std::string& text, std::size_t times) const {
  const bool came = state_->waitUntil([&](const std::vector<Line>& all) {
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), Line{level, text})) >= times;
  });
  if (!came) ADD_FAILURE() << "no line '" << text << "' of level " << level << " in the log:" << this->text();
  return came;
}

bool LogCapture::waitForContaining(int level, const std::string& part, std::size_t times) const {
  const bool came = state_->waitUntil([&](const std::vector<Line>& all) {
    const auto seen = std::count_if(all.begin(), all.end(), [&](const Line& line) {
      return line.level == level && line.text.find(part) != std::string::npos;
    });
    return static_cast<std::size_t>(seen) >= times;
  });
  if (!came) ADD_FAILURE() << "no line with '" << part << "' of level " << level << " in the log:" << text();
  return came;
}

bool LogCapture::inOrder(const std::vector<Line>& expected) const {
  auto next = expected.begin();
  for (const Line& line : lines()) {
    if (next != expected.end() && line == *next) ++next;
  }
  return next == expected.end();
}

std::string LogCapture::text() const {
  std::string all;
  for (const Line& line : lines()) all += "\n  [" + std::to_string(line.level) + "] " + line.text;
  return all;
}

void PrintTo(const LogCapture::Line& line, std::ostream* out) {
  *out << "[" << line.level << "] " << line.text;
}

}  // namespace velto::testing
