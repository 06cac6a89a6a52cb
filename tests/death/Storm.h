#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <future>
#include <vector>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"

namespace velto::testing {

// Synchronous sends from many threads at once: each thread sends until a send comes back without a reply. What came of
// every send is counted; that none is left waiting shows in that finish() returns.
class Storm {
 public:
  static constexpr std::size_t kThreads = 8;

  struct Counts {
    std::size_t sent = 0;
    std::size_t replied = 0;
    std::size_t timedOut = 0;
    std::size_t unavailable = 0;
    // Neither of these: a failure.
    std::size_t strange = 0;

    std::size_t returned() const { return replied + timedOut + unavailable + strange; }
    Counts& operator+=(const Counts& other);
  };

  // Sends one message, without a time-out or with one that is longer than any test.
  using Send = std::function<NSDictionary(const NSDictionary& message, double timeout, NSError* error)>;

  explicit Storm(Send send);
  // So many replies have come, or all threads have ended.
  void waitForReplies(std::size_t count) const;
  // A thread that never returns ends the program.
  Counts finish();

 private:
  Counts sendUntilItFails(std::size_t thread);

  const Send send_;
  std::atomic<std::size_t> replies_{0};
  std::atomic<std::size_t> ended_{0};
  std::vector<std::future<Counts>> threads_;
};

}  // namespace velto::testing
