#include "message/DelegateCalls.h"

#include <functional>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "message/CapturedLog.h"
#include "message/Errors.h"
#include "platform/foundation/NSException.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Line = velto::CapturedLog::Line;

// Notes what it is told, then throws if it is to.
class Delegate final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString connectionID) override { note("ready " + connectionID.string()); }
  void receivedMessage(NSDictionary, NSString, VeltoReplyHandler) override { note("message"); }
  void connectionError(NSString connectionID, NSError error) override {
    note("error " + connectionID.description().string() + " " + error.description().string());
  }

  std::vector<std::string> told;
  std::function<void()> thrower = [] {};

 private:
  void note(std::string what) {
    told.push_back(std::move(what));
    thrower();
  }
};

class DelegateCalls : public ::testing::Test {
 protected:
  static std::string raised(const std::string& callback, const std::string& what) {
    return "The delegate raised an exception in " + callback + ", which is ignored: " + what;
  }

  const std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  const NSError error = velto::makeError(VeltoIPCConnectionError, "Connection interrupted");
  velto::CapturedLog log;
};

}  // namespace

TEST_F(DelegateCalls, ReachTheDelegateAndLogNothing) {
  velto::tellReady(delegate, "id");
  velto::tellError(delegate, nil, error);
  EXPECT_THAT(delegate->told, ElementsAre("ready id", "error (null) " + error.description().string()));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DelegateCalls, OfNullDoNothing) {
  velto::tellReady(nullptr, "id");
  velto::tellError(nullptr, "id", error);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DelegateCalls, ReturnWhateverIsThrownAndTheLineNamesCallbackAndReason) {
  delegate->thrower = [] { throw std::runtime_error("no room"); };
  velto::tellReady(delegate, "id");
  delegate->thrower = [] { throw NSException("NilInContainerException", "a dictionary cannot hold nil"); };
  velto::tellError(delegate, "id", error);
  delegate->thrower = [] { throw 7; };
  velto::tellError(delegate, "id", error);
  EXPECT_THAT(log.lines(), ElementsAre(Line{0, raised("connectionReady", "no room")},
                                       Line{0, raised("connectionError", "a dictionary cannot hold nil")},
                                       Line{0, raised("connectionError", "it is of an unknown kind")}));
  EXPECT_EQ(delegate->told.size(), 3u);
}
