#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/death/DeathPlan.h"
#include "tests/support/ChildProcess.h"

namespace velto::testing {

// What a process has said and heard on each of its streams, as it wrote it down itself. Streams count from 1.
class Words {
 public:
  explicit Words(const std::string& line);

  bool hasStream(std::size_t stream) const { return stream <= said_.size(); }
  bool said(std::size_t stream, const std::string& frame) const { return isAmong(said_, stream, frame); }
  bool heard(std::size_t stream, const std::string& frame) const { return isAmong(heard_, stream, frame); }
  // Streams on which it died in the middle of a frame.
  std::size_t partialFrames() const { return partial_; }
  const std::string& line() const { return line_; }

 private:
  // The frames of each stream, in one direction.
  using Frames = std::vector<std::vector<std::string>>;

  static bool isAmong(const Frames& frames, std::size_t stream, const std::string& frame);

  std::string line_;
  std::size_t partial_ = 0;
  Frames said_;
  Frames heard_;
};

// A client, a listener or a broker in a child process, that dies or halts as planned.
class DyingProcess {
 public:
  DyingProcess(const std::string& role, const DeathPlan& plan);

  // The answer; nothing once it is dead.
  std::optional<std::string> ask(const std::string& command);
  // Whether it has died, as far as it has been asked.
  bool isDead() const { return dead_; }
  // Of a dead one its last words; of a living one those of now.
  Words words();
  // The steps of a living one.
  std::vector<std::string> steps();
  ChildProcess& process() { return process_; }

 private:
  std::optional<std::string> readAnswer();

  const DeathPlan plan_;
  ChildProcess process_;
  bool dead_ = false;
  std::string lastWords_;
};

// Watches a process that is to halt: once it has halted, calls the probe and lets it go on. The probe runs on a thread
// of its own. Whether it has halted is known after finish().
class HaltWatch {
 public:
  HaltWatch(DyingProcess& process, std::function<void()> probe);
  ~HaltWatch();
  HaltWatch(const HaltWatch&) = delete;
  HaltWatch& operator=(const HaltWatch&) = delete;

  bool finish();

 private:
  std::atomic<bool> stopped_{false};
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

}  // namespace velto::testing
