#pragma once

#include <memory>
#include <string>
#include <vector>

namespace velto::testing {

// Takes every log line of the process, failures and progress, for as long as it lives.
class LogCapture {
 public:
  struct Line {
    int level;
    std::string text;
    friend bool operator==(const Line&, const Line&) = default;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const;
  // Exactly this line.
  std::size_t count(int level, const std::string& text) const;
  // Lines of the level that contain the text.
  std::vector<std::string> containing(int level, const std::string& part) const;
  // Forgets what came so far.
  void clear();

  // Waits until the line has come `times` times; on failure the test fails and shows what came instead.
  bool waitFor(int level, const std::string& text, std::size_t times = 1) const;
  bool waitForContaining(int level, const std::string& part, std::size_t times = 1) const;
  // Whether these lines came in this order, with any others between them.
  bool inOrder(const std::vector<Line>& expected) const;
  // All lines, for the report of a failure.
  std::string text() const;

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

void PrintTo(const LogCapture::Line& line, std::ostream* out);

}  // namespace velto::testing
