// Faults that come together, and such that last.

#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>

#include "platform/xpc/NSXPCError.h"
#include "tests/faults/FaultTest.h"

namespace velto::testing {
namespace {

using Combinations = FaultTest;

TEST_F(Combinations, AWriteThatFailsIsReportedEvenIfTheSocketCannotBeShutDown) {
  plan.plan([](SystemCall, int) { return Verdict::pass(); });
  expectWhole("counting");
  const std::size_t count = plan.count(SystemCall::sendMessage);
  std::size_t shutDown = 0;
  for (std::size_t occurrence = 1; occurrence <= count; ++occurrence) {
    for (const int error : {EIO, EPIPE}) {
      const std::string when = "write " + std::to_string(occurrence);
      plan.plan(SystemCall::sendMessage, occurrence, error);
      plan.alsoFail(SystemCall::shutdown, ENOTCONN);
      expectNothingBroken(runExchange(), when);
      shutDown += plan.count(SystemCall::shutdown);
      plan.end();
      expectAtRest(when);
      expectWhole("after " + when);
    }
  }
  EXPECT_GT(shutDown, 0u);
}

TEST_F(Combinations, ARefusedWriteSaysWhyAndNotThatTheOtherEndHasVanished) {
  // The client's call: its hello is the first write.
  std::string texts;
  for (std::size_t occurrence = 1; occurrence <= 4; ++occurrence) {
    plan.plan(SystemCall::sendMessage, occurrence, EPERM);
    for (const Step& step : runExchange().failures()) {
      if (step.error) texts += step.error.localizedDescription().string() + "\n";
    }
    plan.end();
  }
  EXPECT_NE(texts.find("writing failed: Operation not permitted"), std::string::npos) << texts;
}

// Sockets that are watched already: those that something was sent through before.
class Watched {
 public:
  bool includes(SystemCall call, int descriptor) {
    const std::lock_guard lock(mutex_);
    if (call == SystemCall::close) sent_.erase(descriptor);
    return call == SystemCall::sendMessage && !sent_.insert(descriptor).second;
  }

 private:
  std::mutex mutex_;
  std::set<int> sent_;
};

TEST_F(Combinations, AFullSocketThatCannotBeWatchedForRoomIsTriedAgain) {
  plan.plan([](SystemCall, int) { return Verdict::pass(); });
  expectWhole("counting");
  const std::size_t count = plan.count(SystemCall::sendMessage);
  std::atomic<std::size_t> refused{0};
  for (std::size_t occurrence = 1; occurrence <= count; ++occurrence) {
    std::atomic<std::size_t> left{occurrence};
    Watched watched;
    plan.plan([&](SystemCall call, int descriptor) {
      // The watch is changed by the thread that found the socket full.
      thread_local bool full = false;
      if (watched.includes(call, descriptor) && left.fetch_sub(1) == 1) {
        full = true;
        return Verdict::fail(EAGAIN);
      }
      if (call != SystemCall::epollControl || !full) return Verdict::pass();
      full = false;
      ++refused;
      return Verdict::fail(ENOMEM);
    });
    const std::string when = "write " + std::to_string(occurrence);
    expectWhole(when);
    expectAtRest(when);
    plan.end();
  }
  EXPECT_GT(refused, 0u);
}

// Whatever waits for its time comes, though the kernel has refused to set the timer once: a connection to a full
// backlog, one that could not be accepted, a write that the kernel had no memory for.
TEST_F(Combinations, ATimerThatCannotBeSetOnceStrandsNobody) {
  const std::vector<std::pair<SystemCall, int>> causes{
      {SystemCall::connect, EAGAIN}, {SystemCall::accept, EMFILE}, {SystemCall::sendMessage, ENOBUFS}};
  for (const auto& [call, error] : causes) {
    const SystemCall cause = call;
    const int answer = error;
    std::atomic<bool> struck{false};
    plan.plan([&struck, cause, answer](SystemCall made, int) {
      thread_local bool next = false;
      if (made == cause && !struck.exchange(true)) {
        next = true;
        return Verdict::fail(answer);
      }
      if (made != SystemCall::setTimer || !next) return Verdict::pass();
      next = false;
      return Verdict::fail(ENOMEM);
    });
    expectWhole(nameOf(call));
    expectAtRest(nameOf(call));
    plan.end();
    EXPECT_TRUE(struck);
  }
}

TEST_F(Combinations, WhileNoDescriptorIsLeftEverybodyIsToldAndAfterwardsAllIsWell) {
  for (const int error : {EMFILE, ENFILE, ENOMEM}) {
    plan.plan([](SystemCall, int) { return Verdict::pass(); });
    for (const SystemCall call :
         {SystemCall::socketStream, SystemCall::pipe, SystemCall::openAt, SystemCall::duplicate}) {
      plan.alsoFail(call, error);
    }
    const Transcript transcript = runExchange();
    plan.end();
    expectNothingBroken(transcript, "no descriptor");
    EXPECT_FALSE(transcript.isWhole());
    expectAtRest("no descriptor");
    expectWhole("afterwards");
  }
}

// What fails for as long as the exchange lasts.
TEST_F(Combinations, AFaultThatLastsIsReportedLikeOneThatDoesNot) {
  const std::vector<std::pair<SystemCall, int>> lasting{
      {SystemCall::socketStream, EMFILE},  {SystemCall::bind, EACCES},          {SystemCall::connect, ECONNREFUSED},
      {SystemCall::listen, ENOBUFS},       {SystemCall::peerUser, ENOPROTOOPT}, {SystemCall::sendMessage, EPIPE},
      {SystemCall::sendMessage, EIO},      {SystemCall::receiveMessage, EIO},   {SystemCall::openAt, EMFILE},
      {SystemCall::unlinkAt, EROFS},       {SystemCall::renameAt, ENOSPC},      {SystemCall::changeMode, EPERM},
      {SystemCall::lockDirectory, ENOLCK}, {SystemCall::status, EIO},           {SystemCall::statusFlags, EBADF},
      {SystemCall::pipe, EMFILE},          {SystemCall::duplicate, EMFILE},     {SystemCall::epollControl, ENOMEM},
  };
  for (const auto& [call, error] : lasting) {
    plan.plan([](SystemCall, int) { return Verdict::pass(); });
    plan.alsoFail(call, error);
    const Transcript transcript = runExchange();
    plan.end();
    expectNothingBroken(transcript, nameOf(call));
    EXPECT_FALSE(transcript.isWhole()) << nameOf(call);
    expectAtRest(nameOf(call));
    expectWhole("after " + nameOf(call));
  }
}

// Calls that the platform can do without, or takes up again until they work.
TEST_F(Combinations, AFaultThatLastsAndHurtsNobodyIsNotSeen) {
  for (const auto& [call, error] : std::vector<std::pair<SystemCall, int>>{
           {SystemCall::write, EIO}, {SystemCall::close, EIO}, {SystemCall::epollWait, ENOMEM}}) {
    plan.plan([](SystemCall, int) { return Verdict::pass(); });
    std::atomic<int> times{20};
    const SystemCall which = call;
    const int answer = error;
    plan.plan([&times, which, answer](SystemCall made, int) {
      return made == which && times.fetch_sub(1) > 0 ? Verdict::fail(answer) : Verdict::pass();
    });
    expectWhole(nameOf(call));
    plan.end();
    expectAtRest(nameOf(call));
  }
}

}  // namespace
}  // namespace velto::testing
