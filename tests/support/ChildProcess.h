#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/Waiting.h"

namespace velto::testing {

// A program started by a test, with a pipe to its standard input and one from its standard output. Killed and reaped at
// the end, if it still runs. For one thread at a time.
class ChildProcess {
 public:
  enum class Errors { inherit, joinOutput };

  explicit ChildProcess(const std::vector<std::string>& command, Errors errors = Errors::inherit);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t processID() const { return process_; }
  // Without the end of line; nothing at the end of the output, and (a failure of the test) when the bound has passed.
  std::optional<std::string> readLine();
  bool writeLine(const std::string& line);
  // Its standard input is at its end.
  void closeInput();
  void signal(int number);
  // Waits for the end: the exit code, or minus the number of the signal that ended it.
  int wait();

 private:
  pid_t process_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string pending_;
};

}  // namespace velto::testing
