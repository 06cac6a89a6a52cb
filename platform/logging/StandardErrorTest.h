#pragma once

#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

// For tests that put something in the place of standard error.
namespace velto::testing {

// A descriptor that is closed with it.
class File {
 public:
  File() = default;
  explicit File(int number) : number_(number) {}
  ~File() {
    if (number_ >= 0) close(number_);
  }
  File(File&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int number() const { return number_; }

 private:
  int number_ = -1;
};

// A pipe of the smallest size; its reading end waits for nothing.
struct PipeEnds {
  File reading;
  File writing;

  PipeEnds() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    reading = File(ends[0]);
    writing = File(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
  }

  // What lies in the pipe, "" for nothing.
  std::string readSome() const {
    std::string text(65536, '\0');
    const ssize_t length = read(reading.number(), text.data(), text.size());
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
  }
};

// Standard error, for its lifetime, is a pipe.
class StandardErrorPipe {
 public:
  StandardErrorPipe() : former_(dup(STDERR_FILENO)) { dup2(ends_.writing.number(), STDERR_FILENO); }
  ~StandardErrorPipe() { dup2(former_.number(), STDERR_FILENO); }
  StandardErrorPipe(const StandardErrorPipe&) = delete;
  StandardErrorPipe& operator=(const StandardErrorPipe&) = delete;

  std::string readSome() const { return ends_.readSome(); }
  void closeReadingEnd() { ends_.reading = File(); }

 private:
  PipeEnds ends_;
  File former_;
};

}  // namespace velto::testing
