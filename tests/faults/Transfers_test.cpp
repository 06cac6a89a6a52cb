// Transfers cut short, descriptors among them: wherever the kernel takes or gives less than it was asked for, the
// exchange is the same.

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "tests/faults/Announcing.h"
#include "tests/faults/FaultTest.h"

namespace velto::testing {
namespace {

// The kernel, with a measure of what is written.
class MeasuredSystemCalls final : public system::SystemCalls {
 public:
  ssize_t sendMessage(int socket, const msghdr& message) override {
    const ssize_t written = SystemCalls::sendMessage(socket, message);
    const std::size_t bytes = written > 0 ? static_cast<std::size_t>(written) : 0;
    for (std::size_t seen = longest; seen < bytes && !longest.compare_exchange_weak(seen, bytes);) continue;
    ++count;
    return written;
  }

  std::atomic<std::size_t> longest{0};
  std::atomic<std::size_t> count{0};
};

class Transfers : public FaultTest {
 protected:
  struct Measure {
    std::size_t longest;
    std::size_t count;
  };
  // The longest write of an exchange, and the number of writes.
  Measure measure() {
    // Kept: threads of the platform may sleep in it.
    static MeasuredSystemCalls& measured = *new MeasuredSystemCalls;
    system::SystemCalls* const before = system::replaceSystemCalls(&measured);
    expectWhole("measuring");
    system::replaceSystemCalls(before);
    return {measured.longest, measured.count};
  }

  void expectWholeUnderPlan(const std::string& when) {
    expectWhole(when);
    expectAtRest(when);
    plan.end();
  }
};

TEST_F(Transfers, WrittenOneByteAtATimeAreTheSame) {
  plan.plan(
      [](SystemCall call, int) { return call == SystemCall::sendMessage ? Verdict::atMost(1) : Verdict::pass(); });
  expectWholeUnderPlan("one byte at a time");
}

TEST_F(Transfers, ReadOneByteAtATimeAreTheSame) {
  plan.plan([](SystemCall call, int descriptor) {
    if (call != SystemCall::receiveMessage) return Verdict::pass();
    announceAgain(descriptor);
    return Verdict::atMost(1);
  });
  expectWholeUnderPlan("one byte at a time");
}

TEST_F(Transfers, EachWriteCutAtEveryByteIsTheSame) {
  const Measure clean = measure();
  ASSERT_GT(clean.count, 0u);
  for (std::size_t occurrence = 1; occurrence <= clean.count; ++occurrence) {
    for (std::size_t bytes = 1; bytes <= clean.longest; ++bytes) {
      std::atomic<std::size_t> left{occurrence};
      plan.plan([&](SystemCall call, int) {
        const bool isThis = call == SystemCall::sendMessage && left.fetch_sub(1) == 1;
        return isThis ? Verdict::atMost(bytes) : Verdict::pass();
      });
      expectWholeUnderPlan("write " + std::to_string(occurrence) + " cut after " + std::to_string(bytes));
    }
  }
}

TEST_F(Transfers, EachReadCutAtEveryByteIsTheSame) {
  const Measure clean = measure();
  for (std::size_t occurrence = 1; occurrence <= clean.count; ++occurrence) {
    for (std::size_t bytes = 1; bytes <= clean.longest; ++bytes) {
      std::atomic<std::size_t> left{occurrence};
      plan.plan([&](SystemCall call, int descriptor) {
        if (call != SystemCall::receiveMessage || left.fetch_sub(1) != 1) return Verdict::pass();
        announceAgain(descriptor);
        return Verdict::atMost(bytes);
      });
      expectWholeUnderPlan("read " + std::to_string(occurrence) + " cut after " + std::to_string(bytes));
    }
  }
}

// Each write and each read, and each accepting, finds the kernel not ready once.
TEST_F(Transfers, ThatMustWaitOnceAreTheSame) {
  for (const SystemCall which : {SystemCall::sendMessage, SystemCall::receiveMessage, SystemCall::accept}) {
    plan.plan([](SystemCall, int) { return Verdict::pass(); });
    expectWhole("counting");
    const std::size_t count = plan.count(which);
    ASSERT_GT(count, 0u) << nameOf(which);
    for (std::size_t occurrence = 1; occurrence <= count; ++occurrence) {
      std::atomic<std::size_t> left{occurrence};
      plan.plan([&](SystemCall call, int descriptor) {
        if (call != which || left.fetch_sub(1) != 1) return Verdict::pass();
        if (which != SystemCall::sendMessage) announceAgain(descriptor);
        return Verdict::fail(EAGAIN);
      });
      expectWholeUnderPlan(nameOf(which) + " " + std::to_string(occurrence) + " must wait");
    }
  }
}

}  // namespace
}  // namespace velto::testing
