#include "message/ReplyChain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "message/CapturedLog.h"
#include "platform/foundation/NSUUID.h"
#include "platform/xpc/Protocol.h"

namespace {

// The label in a line of the log, which ends with `ending`; "" when it is another line.
std::string labelIn(const velto::CapturedLog::Line& line, const std::string& ending) {
  const std::size_t length = line.text.size() - std::min(line.text.size(), ending.size());
  return line.level == 2 && line.text.substr(length) == ending ? line.text.substr(0, length) : "";
}

constexpr char kSent[] = " handler sent to delegate";
constexpr char kCalled[] = " handler called by delegate";

}  // namespace

TEST(ReplyChain, TheLabelIsTheIdentifierAndAFreshUUID) {
  velto::CapturedLog log;
  velto::wrapForDelegate("id", {});
  velto::wrapForDelegate("id", {});
  ASSERT_EQ(log.lines().size(), 2U);
  const std::string first = labelIn(log.lines()[0], kSent);
  const std::string second = labelIn(log.lines()[1], kSent);
  ASSERT_EQ(first.substr(0, 3), "id_");
  EXPECT_TRUE(NSUUID::UUIDWithString(first.substr(3)));
  EXPECT_NE(first, second);
}

TEST(ReplyChain, ANilIdentifierPrintsAsSuch) {
  velto::CapturedLog log;
  velto::wrapForDelegate(nil, {});
  EXPECT_EQ(labelIn(log.lines().at(0), kSent).substr(0, 7), "(null)_");
}

TEST(ReplyChain, EveryCallIsPassedOnAndLoggedUnderTheSameLabel) {
  velto::CapturedLog log;
  std::vector<NSDictionary> replies;
  const auto wrapper = velto::wrapForDelegate("id", [&](NSDictionary reply) { replies.push_back(reply); });
  EXPECT_TRUE(replies.empty());
  wrapper({{"answer", 1}});
  wrapper(nil);
  EXPECT_THAT(replies, ::testing::ElementsAre(NSDictionary{{"answer", 1}}, NSDictionary()));
  const std::string label = labelIn(log.lines().at(0), kSent);
  ASSERT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(labelIn(log.lines()[1], kCalled), label);
  EXPECT_EQ(labelIn(log.lines()[2], kCalled), label);
}

TEST(ReplyChain, WithoutAnIncomingHandlerACallIsOnlyLogged) {
  velto::CapturedLog log;
  velto::wrapForDelegate("id", {})({{"answer", 1}});
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(ReplyChain, AWrapperThatIsLetGoOfLetsGoOfTheIncomingHandler) {
  const auto held = std::make_shared<int>(0);
  auto wrapper = velto::wrapForDelegate("id", [held](NSDictionary) {});
  EXPECT_EQ(held.use_count(), 2);
  wrapper = {};
  EXPECT_EQ(held.use_count(), 1);
}

TEST(ReplyChain, TheEmptyHandlerIsOneSharedHandlerThatDoesNothingAndSaysSo) {
  EXPECT_EQ(&velto::emptyReplyHandler(), &velto::emptyReplyHandler());
  velto::emptyReplyHandler()({{"answer", 1}});
  EXPECT_NE(velto::emptyReplyHandler().target<velto::IgnoredReply<NSDictionary>>(), nullptr);
}
