#pragma once

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include <sys/types.h>

// A command line that runs in a shell, with all that it starts. Killed at the end, if it still runs.
class Command {
 public:
  // One that cannot be started has no output and ends with 127.
  explicit Command(const std::string& line);
  ~Command();
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // The next line of its output, without its end; nothing at the end of the output. Sleeps.
  std::optional<std::string> readLine();
  // From any thread.
  void kill();
  // Sleeps until it has ended: its exit status, or 128 and the number of the signal that ended it.
  int wait();

 private:
  std::FILE* output_ = nullptr;
  std::mutex mutex_;
  pid_t process_ = -1;
};
