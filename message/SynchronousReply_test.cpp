#include "message/SynchronousReply.h"

#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "VeltoIPC/VeltoConstants.h"
#include "platform/foundation/NSData.h"
#include "platform/xpc/Protocol.h"

TEST(SynchronousReply, ZeroPositiveAndForeverAreValidTimeouts) {
  EXPECT_TRUE(velto::isValidTimeout(0.0));
  EXPECT_TRUE(velto::isValidTimeout(-0.0));
  EXPECT_TRUE(velto::isValidTimeout(0.25));
  EXPECT_TRUE(velto::isValidTimeout(std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(velto::isValidTimeout(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_TRUE(velto::isValidTimeout(-1.0));
}

TEST(SynchronousReply, EveryOtherNegativeTimeoutIsInvalid) {
  EXPECT_FALSE(velto::isValidTimeout(-0.5));
  EXPECT_FALSE(velto::isValidTimeout(-2.0));
  EXPECT_FALSE(velto::isValidTimeout(-std::numeric_limits<double>::infinity()));
}

TEST(SynchronousReply, ForeverIsReadAtEachCall) {
  VKT_IPC_TIME_FOREVER = -2.0;
  EXPECT_TRUE(velto::isValidTimeout(-2.0));
  EXPECT_FALSE(velto::isValidTimeout(-1.0));
  VKT_IPC_TIME_FOREVER = -1.0;
}

TEST(SynchronousReply, TheHandlerStoresTheReplyAndWakesTheSender) {
  const auto shared = std::make_shared<velto::SynchronousReply>();
  std::thread replier([handler = velto::replyHandlerFor(shared)] { handler({{"answer", 42}}); });
  {
    const velto::ConditionLock lock(shared->condition);
    while (!shared->hasReplied) shared->condition.wait();
  }
  EXPECT_EQ(shared->reply.get(), (NSDictionary{{"answer", 42}}));
  replier.join();
}

TEST(SynchronousReply, ANilReplyCountsAndALaterOneReplacesIt) {
  const auto shared = std::make_shared<velto::SynchronousReply>();
  const auto handler = velto::replyHandlerFor(shared);
  handler(nil);
  {
    const velto::ConditionLock lock(shared->condition);
    EXPECT_TRUE(shared->hasReplied);
  }
  EXPECT_FALSE(shared->reply.get());
  handler({{"answer", 1}});
  EXPECT_EQ(shared->reply.get(), (NSDictionary{{"answer", 1}}));
}

TEST(SynchronousReply, AReplyThatIsReplacedMayUseTheConditionAsItGoes) {
  const auto shared = std::make_shared<velto::SynchronousReply>();
  const auto handler = velto::replyHandlerFor(shared);
  bool ended = false;
  handler({{"data", NSData::dataWithBytesNoCopy("", 0, [&] {
              const velto::ConditionLock lock(shared->condition);  // blocks for ever if it is still held
              ended = true;
            })}});
  EXPECT_FALSE(ended);
  handler(nil);
  EXPECT_TRUE(ended);
}

TEST(SynchronousReply, TheHandlerOutlivesTheSenderAndNeverBlocks) {
  auto shared = std::make_shared<velto::SynchronousReply>();
  const std::weak_ptr<velto::SynchronousReply> watched = shared;
  auto handler = velto::replyHandlerFor(std::move(shared));
  handler({{"late", true}});
  EXPECT_NE(handler.target<velto::NonBlockingReply<NSDictionary>>(), nullptr);
  EXPECT_FALSE(watched.expired());
  handler = {};
  EXPECT_TRUE(watched.expired());
}
