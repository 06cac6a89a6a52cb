#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/SystemCalls.h"
#include "tests/death/DeathPlan.h"
#include "tests/death/actor/FrameTrace.h"

namespace velto::testing {

// In the kernel's place: lets everything through, writes down which frames passed, and ends or halts the process when
// its plan says so. One step is made at a time, so that nothing more is said by another thread of a process that dies.
//
// Its last words are a line on standard output:
//   dying at STEP CALL; PARTIAL; said FRAME... heard FRAME...; said ...
// with one group for each stream, in the order in which the streams were made (connected or accepted); PARTIAL is how
// many streams were left with a part of a frame.
class DeathSeam final : public system::SystemCalls {
 public:
  explicit DeathSeam(const DeathPlan& plan);
  ~DeathSeam() override;

  // Steps count from here.
  void arm();
  // The names of the steps so far.
  std::string steps() const;
  // What its last words would be now, beginning with "alive".
  std::string words() const;

  // Whether every thread of the platform waits for an event, and holds nothing.
  bool isIdle() const;

  int epollWait(int epoll, epoll_event* events, int capacity) override;
  int connect(int socket, const char* path) override;
  int accept(int socket) override;
  ssize_t sendMessage(int socket, const msghdr& message) override;
  ssize_t receiveMessage(int socket, msghdr& message) override;
  int close(int descriptor) override;

 private:
  struct Stream {
    FrameTrace said;
    FrameTrace heard;
  };

  // Whether the plan's step has come; dies at once if it is to die before it.
  bool begin(const char* call) VELTO_REQUIRES(mutex_);
  // Dies if the step has come and its moment is after the kernel's work.
  void end(bool due) VELTO_REQUIRES(mutex_);
  void die() VELTO_REQUIRES(mutex_);
  void addStream(int socket) VELTO_REQUIRES(mutex_);
  Stream* streamOf(int socket) VELTO_REQUIRES(mutex_);
  std::string describe(const std::string& state) const VELTO_REQUIRES(mutex_);

  const DeathPlan plan_;
  std::atomic<std::size_t> waiting_{0};
  mutable Mutex mutex_;
  bool armed_ VELTO_GUARDED_BY(mutex_) = false;
  std::vector<std::string> steps_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Stream>> streams_ VELTO_GUARDED_BY(mutex_);
  std::map<int, std::shared_ptr<Stream>> open_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
