// Paths: keys with dots between them, numbers in brackets. The whole path is read before it is followed, so that one
// that is malformed is told so whatever the value is.

#include <charconv>
#include <cstdint>
#include <vector>

#include "platform/foundation/ComingOut.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSDictionary.h"

namespace velto {
namespace {

struct Step {
  bool isIndex = false;
  std::uint64_t index = 0;
  std::string key;
  std::size_t end = 0;  // of the path, when this step has been taken
};

// Reads a path once, from the front to the back.
class PathReader {
 public:
  explicit PathReader(std::string_view path) : path_(path) {}

  // False when the path is malformed: error() says how.
  bool read() {
    while (error_.empty() && at_ < path_.size()) {
      if (path_[at_] == '[') {
        readIndex();
      } else {
        readKey();
      }
    }
    return error_.empty();
  }
  const std::vector<Step>& steps() const noexcept { return steps_; }
  const std::string& error() const noexcept { return error_; }

 private:
  // A dot stands between a step and a key behind it, nowhere else.
  void readKey() {
    const bool isFirst = at_ == 0;
    if (!isFirst && path_[at_++] != '.') return fail(at_ - 1, "a dot or a bracket is missing");
    Step step;
    const std::size_t start = at_;
    for (; at_ < path_.size() && path_[at_] != '.' && path_[at_] != '['; ++at_) {
      if (path_[at_] == ']') return fail(at_, "a bracket closes that was not opened");
      if (path_[at_] == '\\' && !isEscape(++at_)) return fail(at_ - 1, "a backslash stands before nothing special");
      step.key += path_[at_];
    }
    if (at_ == start) return fail(at_, "a key is empty");
    finish(std::move(step));
  }

  void readIndex() {
    Step step;
    step.isIndex = true;
    const std::size_t start = at_ + 1;
    const std::size_t close = path_.find(']', start);
    if (close == std::string_view::npos) return fail(at_, "a bracket is not closed");
    const std::from_chars_result result = std::from_chars(path_.data() + start, path_.data() + close, step.index);
    if (result.ec != std::errc() || result.ptr != path_.data() + close) return fail(start, "an index is no number");
    at_ = close + 1;
    finish(std::move(step));
  }

  bool isEscape(std::size_t at) const {
    return at < path_.size() && std::string_view(".[]\\").find(path_[at]) != std::string_view::npos;
  }
  void finish(Step step) {
    step.end = at_;
    steps_.push_back(std::move(step));
  }
  void fail(std::size_t at, const char* what) {
    error_ = std::string(path_) + ": is no path: at " + std::to_string(at) + ", " + what;
  }

  const std::string_view path_;
  std::size_t at_ = 0;
  std::vector<Step> steps_;
  std::string error_;
};

bool canTake(const Step& step, const NSObject& from) {
  return from.is<NSDictionary>() || (step.isIndex && from.is<NSArray>());
}

NSObject taken(const Step& step, const NSObject& from) {
  return step.isIndex ? from[step.index] : from[NSObject(step.key)];
}

}  // namespace

PathEnd followPath(const NSObject& from, std::string_view path) {
  PathReader reader(path);
  if (!reader.read()) return {nil, "", reader.error()};
  PathEnd end{from, "", ""};
  for (const Step& step : reader.steps()) {
    if (end.value.isNil()) return end;
    if (!canTake(step, end.value)) {
      Mismatch why;
      why.isNot(end.value, step.isIndex ? "an array" : "a dictionary");
      return {nil, "", why.text(end.place)};
    }
    end.value = taken(step, end.value);
    end.place = path.substr(0, step.end);
  }
  return end;
}

}  // namespace velto
