#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace velto::hostile {

// Threads of the victim's own that each wait in a synchronous send.
//
// Thread-safe.
class Waiters final {
 public:
  // Starts a thread that runs `send`, which returns whether a reply came.
  void start(std::function<bool()> send);
  // "waiting=1 replied=2 unanswered=3"
  std::string figures() const;

 private:
  struct Counts {
    std::atomic<std::size_t> waiting{0};
    std::atomic<std::size_t> replied{0};
    std::atomic<std::size_t> unanswered{0};
  };
  // Shared with threads that may never end: the process ends without them.
  const std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

}  // namespace velto::hostile
