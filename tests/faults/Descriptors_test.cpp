// The process really runs out of descriptors: its limit is lowered, one exchange after the other with a little more
// room, so that each step is the one that finds none left.

#include <atomic>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>

#include "platform/xpc/NSXPCError.h"
#include "tests/faults/FaultTest.h"

#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
#define VELTO_NEEDS_DESCRIPTORS_TO_CHECK_TYPES
#endif
#endif

namespace velto::testing {
namespace {

class DescriptorLimit {
 public:
  DescriptorLimit() { ::getrlimit(RLIMIT_NOFILE, &before_); }
  ~DescriptorLimit() { raise(); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  // No descriptor of this number or a greater one can be made.
  void lowerTo(rlim_t number) { set(number); }
  void raise() { set(before_.rlim_cur); }

 private:
  void set(rlim_t number) {
    rlimit limit = before_;
    limit.rlim_cur = number;
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  }

  rlimit before_{};
};

// The number under which exactly `room` are free.
rlim_t limitWithRoomFor(std::size_t room) {
  int number = 0;
  for (std::size_t free = 0;; ++number) {
    const bool isFree = ::fcntl(number, F_GETFD) < 0;
    if (isFree && free++ == room) return static_cast<rlim_t>(number);
  }
}

class Descriptors : public FaultTest {
 protected:
  // The exchange with this much room. The one that accepts waits until there is room again, and its other end with it:
  // the limit is raised as soon as that is said.
  Transcript exchangeWithRoomFor(std::size_t count) {
    Transcript transcript;
    std::atomic<bool> over{false};
    DescriptorLimit limit;
    auto rescuer = inBackground([&] {
      while (!over && log.containing(0, "A connection cannot be accepted yet").empty()) std::this_thread::yield();
      limit.raise();
    });
    limit.lowerTo(limitWithRoomFor(count));
    transcript = runExchange();
    over = true;
    finish(rescuer);
    return transcript;
  }

  void collect(const Transcript& transcript) {
    for (const Step& step : transcript.failures()) {
      reports_ += step.error ? step.error.localizedDescription().string() + "\n" : step.text + "\n";
    }
    reports_ += log.text();
  }

  std::string reports_;
};

TEST_F(Descriptors, ThatCannotBeMadeAreReportedAndOnesThatComeAreNotLost) {
#ifdef VELTO_NEEDS_DESCRIPTORS_TO_CHECK_TYPES
  GTEST_SKIP() << "this sanitizer makes a pipe to look at the type of an object, and reports one when it cannot";
#endif
  // An exchange has no more than these open at a time.
  constexpr std::size_t kEnough = 40;
  std::size_t whole = 0;
  for (std::size_t room = 0; room <= kEnough; ++room) {
    const std::string when = "room for " + std::to_string(room);
    log.clear();
    const Transcript transcript = exchangeWithRoomFor(room);
    expectNothingBroken(transcript, when);
    for (const Step& step : transcript.failures()) {
      EXPECT_TRUE(step.error.isNil() || step.error.domain() == NSXPCErrorDomain) << when << ", " << step.name;
    }
    whole += transcript.isWhole() ? 1 : 0;
    collect(transcript);
    expectAtRest(when);
    expectWhole("after " + when);
  }
  EXPECT_GT(whole, 0u) << "with enough room nothing fails";
  EXPECT_LT(whole, kEnough);
  for (const char* told :
       {"making a socket failed: Too many open files", "making a pipe failed: Too many open files",
        "A connection cannot be accepted yet: Too many open files", "descriptors were lost on the way"}) {
    EXPECT_NE(reports_.find(told), std::string::npos) << told << " was never the case";
  }
}

}  // namespace
}  // namespace velto::testing
