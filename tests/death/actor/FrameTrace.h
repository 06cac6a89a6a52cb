#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace velto::testing {

// One direction of a stream: the bytes that have passed, as the names of the frames they make. Calls have short names:
// "register", "find", "ping", "strict", "identifier", "message", "error"; other frames those of the wire's description.
class FrameTrace {
 public:
  void passed(std::string_view bytes);

  const std::vector<std::string>& names() const { return names_; }
  bool hasPartialFrame() const { return !pending_.empty(); }

 private:
  std::string pending_;
  std::vector<std::string> names_;
};

}  // namespace velto::testing
