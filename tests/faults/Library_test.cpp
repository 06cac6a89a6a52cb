// The same faults below the whole library: broker, listener and client in one process. Whoever waits for readiness, or
// for a reply, is let go before the time-out, whatever has failed; and nothing stays open.

#include <cerrno>

#include "VeltoIPC/VeltoIPC.h"
#include "daemon/Broker.h"
#include "platform/xpc/NSXPCError.h"
#include "tests/faults/FaultTable.h"
#include "tests/faults/FaultTest.h"
#include "tests/support/Census.h"

namespace velto::testing {
namespace {

constexpr char kName[] = "org.velto.test.faults";
constexpr double kPatience = 20.0;

class Library : public FaultTest, public ::testing::WithParamInterface<SystemCall> {
 protected:
  // What came of one whole use: the step at which it failed, and the error; or nothing.
  struct Result {
    std::string failed;
    NSError error;
  };

  // A use of the library from the broker's start to everybody's end.
  Result use() {
    const auto broker = Broker::make();
    NSError error;
    const auto service = NSXPCListener::listenerWithServiceName(VeltoIPCDaemonServiceName, &error);
    if (!service) return {"broker", error};
    service->setDelegate(broker);
    service->resume();
    const auto served = std::make_shared<RecordingDelegate>();
    const auto delegate = std::make_shared<RecordingDelegate>();
    served->echo();
    delegate->echo();
    auto listener = VeltoListener::initWithServiceName(kName, served);
    if (listener && listener->daemonConnection()) settle(*listener);
    auto client = VeltoConnection::initWithServiceName(kName, delegate);
    const Result result = exchangeOver(*listener, *client);
    client->close();
    listener->close();
    service->invalidate();
    EXPECT_TRUE(waitUntilAlone(client));
    EXPECT_TRUE(waitUntilAlone(listener));
    served->quiesce();
    delegate->quiesce();
    return result;
  }

  // Until the broker has taken the registration, or the link is over.
  static void settle(VeltoListener& listener) {
    const auto asked = std::make_shared<std::promise<void>>();
    listener.daemonConnection()
        ->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>([asked](const NSError&) { asked->set_value(); })
        ->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
            NSString(kName), [asked](const NSXPCListenerEndpoint&) { asked->set_value(); });
    auto answered = asked->get_future();
    finish(answered);
  }

  Result exchangeOver(VeltoListener& listener, VeltoConnection& client) {
    NSError error;
    const NSDictionary message{{"word", "there"}};
    if (!client.waitUntilReady(kPatience, &error)) return failedWith("ready", error);
    const NSDictionary there = client.sendMessageSync(message, kPatience, &error);
    if (there != message) return failedWith("there", error);
    const NSDictionary back = listener.sendMessageSync(message, client.getID(), kPatience, &error);
    if (back != message) return failedWith("back", error);
    return {};
  }

  Result failedWith(const std::string& step, const NSError& error) const { return {step, error}; }

  // Uses the library with a fault. Nobody may have slept through to the end of its patience.
  Result useWithin(const std::string& when) {
    const auto start = std::chrono::steady_clock::now();
    const Result result = use();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::duration<double>(kPatience)) << when << ": hung";
    return result;
  }
};

TEST_P(Library, LetsEverybodyGoWhateverFails) {
  ASSERT_EQ(useWithin("the first use").failed, "");
  std::size_t atRest = openDescriptors();
  ASSERT_EQ(useWithin("the second use").failed, "");
  eventually([&] { return openDescriptors() <= atRest; }, std::chrono::milliseconds(2000));
  atRest = std::min(atRest, openDescriptors());
  for (const Fault& fault : allFaults()) {
    if (fault.call != GetParam()) continue;
    std::atomic<std::size_t> occurrences{0};
    plan.plan([&](SystemCall call, int descriptor) {
      if (call == fault.call && fault.selection(descriptor)) ++occurrences;
      return Verdict::pass();
    });
    ASSERT_EQ(useWithin("counting").failed, "");
    plan.end();
    for (std::size_t occurrence = 1; occurrence <= occurrences; ++occurrence) {
      const int error = fault.errors[occurrence % fault.errors.size()];
      const std::string when = nameOf(fault.call) + " " + std::to_string(occurrence) + ", " + strerror(error);
      plan.plan(fault.call, occurrence, error, fault.selection);
      const Result result = useWithin(when);
      plan.end();
      EXPECT_TRUE(fault.effect != Effect::none || result.failed.empty()) << when << ": " << result.failed;
      EXPECT_TRUE(result.failed.empty() || result.error) << when << ": " << result.failed << " without an error";
      EXPECT_TRUE(eventually([&] { return openDescriptors() <= atRest; })) << when;
      EXPECT_EQ(useWithin("after " + when).failed, "") << "after " << when;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seam, Library, ::testing::ValuesIn(callsOfTheTable()),
                         [](const auto& information) { return nameOf(information.param); });

}  // namespace
}  // namespace velto::testing
