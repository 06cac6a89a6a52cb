#pragma once

#include <atomic>
#include <string>

#include <VeltoIPC/VeltoIPC.h>

namespace machine {

// What one program says, line by line, and whether everything that it wanted to see came true. Thread-safe.
class Transcript {
 public:
  explicit Transcript(std::string speaker);

  void say(const NSString& text);
  // Says `what` when it is so. Otherwise says that it is missing, and why, and the program's exit code becomes 1.
  bool check(bool isSo, const NSString& what, const NSObject& insteadSeen = nil);
  int exitCode() const { return isComplete_ ? 0 : 1; }

 private:
  const std::string speaker_;
  std::atomic<bool> isComplete_ = true;
};

}  // namespace machine
