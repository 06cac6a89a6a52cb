#include "broker/DaemonConnection.h"

#include <cstdlib>
#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "broker/VeltoIPCNamesProtocol.h"
#include "message/CapturedLog.h"
#include "message/Errors.h"
#include "platform/xpc/NSXPCError.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using Line = velto::CapturedLog::Line;

// Keeps the first error that it hears of.
class Delegate final : public VeltoIPCDelegate {
 public:
  struct Told {
    NSString connectionID;
    NSError error;
  };

  void connectionReady(NSString) override { ADD_FAILURE(); }
  void receivedMessage(NSDictionary, NSString, VeltoReplyHandler) override { ADD_FAILURE(); }
  void connectionError(NSString connectionID, NSError error) override { told_.set_value({connectionID, error}); }

  Told told() {
    auto future = told_.get_future();
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return {"nothing told", nil};
    return future.get();
  }

 private:
  std::promise<Told> told_;
};

// A runtime directory of the test's own, in which no broker listens.
class DaemonConnection : public ::testing::Test {
 protected:
  DaemonConnection() {
    std::string path = (std::filesystem::temp_directory_path() / "velto-broker-XXXXXX").string();
    directory = mkdtemp(path.data());
    setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
  }
  ~DaemonConnection() override { std::filesystem::remove_all(directory); }

  std::filesystem::path directory;
  velto::CapturedLog log;
};

}  // namespace

TEST_F(DaemonConnection, WithoutABrokerTheLinkIsMadeAndItsInvalidationReported) {
  const auto delegate = std::make_shared<Delegate>();
  const auto link = setupDaemonConnection(delegate);
  ASSERT_TRUE(link);
  EXPECT_THAT(log.lines(), Contains(Line{2, "DaemonConnection Created"}));
  const Delegate::Told told = delegate->told();
  EXPECT_FALSE(told.connectionID);
  EXPECT_EQ(told.error, velto::makeError(VeltoIPCConnectionError, "Daemon connection invalidated"));
  EXPECT_TRUE(log.waitFor({0, "Daemon connection invalidated"}));
}

TEST_F(DaemonConnection, WithoutABrokerACallRunsItsErrorHandler) {
  const auto link = setupDaemonConnection(nullptr);
  std::promise<NSError> failed;
  const auto proxy = link->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
      [&failed](const NSError& error) { failed.set_value(error); });
  proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
      "a", [](const NSXPCListenerEndpoint&) { ADD_FAILURE(); });
  auto future = failed.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(future.get().domain(), NSXPCErrorDomain);
}

TEST_F(DaemonConnection, WithoutADelegateTheHandlersOnlyLog) {
  const auto link = setupDaemonConnection(nullptr);
  EXPECT_TRUE(log.waitFor({0, "Daemon connection invalidated"}));
}

TEST_F(DaemonConnection, ADelegateThatIsGoneIsToldNothing) {
  auto delegate = std::make_shared<Delegate>();
  const std::weak_ptr<Delegate> watched = delegate;
  const auto link = setupDaemonConnection(delegate);
  delegate.reset();
  EXPECT_TRUE(log.waitFor({0, "Daemon connection invalidated"}));
  EXPECT_TRUE(watched.expired());
}

TEST(VeltoIPCDaemonProtocol, HasThreeRequiredMethodsOfWhichOneReplies) {
  const auto& table = velto::xpc::protocolOf<VeltoIPCDaemonProtocol>();
  std::vector<std::string> selectors;
  for (const auto& method : table.methods()) {
    selectors.push_back(method.selector);
    EXPECT_EQ(method.requirement, velto::xpc::Requirement::required) << method.selector;
    EXPECT_EQ(method.way, velto::xpc::Way::twoWay) << method.selector;
    EXPECT_EQ(method.hasReply(), method.selector == "findListenerEndpointForName:handle:") << method.selector;
  }
  EXPECT_THAT(selectors, ElementsAre("sendListenerConnection:withName:", "findListenerEndpointForName:handle:",
                                     "killListenerConnection:"));
}

TEST(VeltoIPCNamesProtocol, IsTheOlderOneAndBehindItWhatAnOlderBrokerMayLack) {
  const auto& older = velto::xpc::protocolOf<VeltoIPCDaemonProtocol>().methods();
  const auto& methods = velto::xpc::protocolOf<VeltoIPCNamesProtocol>().methods();
  ASSERT_EQ(methods.size(), older.size() + 4);
  for (std::size_t each = 0; each < methods.size(); ++each) {
    const bool isOld = each < older.size();
    if (isOld) {
      EXPECT_EQ(methods[each].selector, older[each].selector);
    }
    EXPECT_EQ(methods[each].requirement, isOld ? velto::xpc::Requirement::required : velto::xpc::Requirement::optional);
  }
}

TEST(NameAnswer, SurvivesItsDictionary) {
  const velto::NameAnswer stands = velto::nameAnswerIn(velto::dictionaryOf(velto::NameAnswer{{3, 4711}, false, ""}));
  EXPECT_TRUE(stands.stands());
  EXPECT_EQ(stands.state, (velto::NameState{3, 4711}));
  EXPECT_TRUE(velto::nameAnswerIn(velto::dictionaryOf(velto::NameAnswer{{3, 4711}, true, ""})).isTaken);
  EXPECT_EQ(velto::nameAnswerIn(velto::dictionaryOf(velto::NameAnswer{{}, false, "why"})).refusal, "why");
  // What no broker sends.
  for (const NSDictionary& odd : {NSDictionary(), NSDictionary{{"registration", "x"}, {"process", -1e300}}}) {
    EXPECT_FALSE(velto::nameAnswerIn(odd).stands());
    EXPECT_EQ(velto::nameStateIn(odd), velto::NameState());
  }
}
