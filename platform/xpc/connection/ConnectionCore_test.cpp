// One end over a bare channel: what it sends, what it makes of the frames that come, and what it tells whom in which
// order.
#include "platform/xpc/connection/ConnectionCore.h"

#include <array>

#include <gtest/gtest.h>

#include "platform/logging/OrderlyEnd.h"
#include "platform/xpc/connection/CallCoding.h"
#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {
namespace {

using testing::Greeter;
using testing::Inbox;
using testing::TestGreeter;
using wire::FrameType;

// The other end: keeps the kinds of the frames that come.
class OtherEnd final : public transport::ChannelReceiver {
 public:
  Inbox<FrameType> frames;
  Inbox<std::string> ends;

  void framesArrived(std::span<wire::Frame> arrived) override {
    for (const wire::Frame& frame : arrived) frames.put(frame.type);
  }
  void channelEnded(const std::string& reason) override { ends.put(reason); }
  void outputDrained() override {}
};

// Runs code of the test when a block that holds it is destroyed.
class AtDestruction {
 public:
  explicit AtDestruction(std::function<void()> action) : action_(std::move(action)) {}
  ~AtDestruction() { action_(); }
  AtDestruction(const AtDestruction&) = delete;
  AtDestruction& operator=(const AtDestruction&) = delete;

 private:
  const std::function<void()> action_;
};

class Core : public ::testing::Test {
 protected:
  Core() {
    VKTLogSetSink([lines = lines_](const VKTLogAnchor&, int, const NSString& text) { lines->put(text.string()); });
    auto [here, there] = testing::socketPair();
    socket_ = std::move(here);
    core = ConnectionCore::connecting("a test", "a test", [this] {
      return transport::ConnectAttempt{std::move(socket_), false, false, "there is one socket only"};
    });
    core->setRemoteInterface(interface);
    core->setExportedInterface(interface);
    core->setExportedObject(protocolOf<Greeter>(), greeter);
    core->setInterruptionHandler([tell = tell_] { tell("interrupted"); });
    core->setInvalidationHandler([tell = tell_] { tell("invalidated"); });
    channel = std::make_shared<transport::Channel>(
        std::move(there), other, std::make_shared<transport::Holding>(std::weak_ptr<transport::HoldingOwner>()),
        nullptr);
    channel->start();
  }
  ~Core() override {
    core->invalidateAtOnce();
    channel->abort();
    VKTLogSetSink({});
  }

  void greetFrom(const std::string& name, ReplyBlock reply) {
    core->call(greet, std::array<NSObject, 1>{NSString(name)}, std::move(reply), errorHandler_);
  }
  void socketIsGone() { socket_.reset(); }
  // Puts what it is called with, and then its destruction, into the list.
  ReplyBlock notingBlock() {
    const auto held = std::make_shared<AtDestruction>([told = told_, weak = std::weak_ptr(core)] {
      // Takes the connection's lock, which must not be held.
      if (const auto alive = weak.lock()) alive->peer();
      told->put("let go of");
    });
    return {[held, told = told_](const NSObject& value) { told->put(value.as<NSString>().string()); }};
  }

 private:
  const std::shared_ptr<Inbox<std::string>> told_ = std::make_shared<Inbox<std::string>>();
  const std::shared_ptr<Inbox<std::string>> lines_ = std::make_shared<Inbox<std::string>>();
  system::Descriptor socket_;
  const std::shared_ptr<Inbox<bool>> orders_ = std::make_shared<Inbox<bool>>();
  const std::function<void(const std::string&)> tell_ = [told = told_, orders = orders_](const std::string& text) {
    orders->put(OrderlyEnd::isToldNow());
    told->put(text);
  };
  const ErrorHandler errorHandler_ = std::make_shared<const std::function<void(NSError)>>(
      [tell = tell_](NSError error) { tell(error.localizedDescription().string()); });

 protected:
  using Texts = std::vector<std::string>;
  using Types = std::vector<FrameType>;
  using Orders = std::vector<bool>;

  Inbox<std::string>& told = *told_;
  Inbox<std::string>& lines = *lines_;
  // For each handler that was told something: whether that came of an end in good order.
  Inbox<bool>& orders = *orders_;
  const std::shared_ptr<NSXPCInterface> interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  const Method& greet = *interface->protocol().methodForSelector("greet:reply:");
  const std::shared_ptr<TestGreeter> greeter = std::make_shared<TestGreeter>();
  const std::shared_ptr<OtherEnd> other = std::make_shared<OtherEnd>();
  std::shared_ptr<ConnectionCore> core;
  std::shared_ptr<transport::Channel> channel;
};

TEST_F(Core, SaysHelloThenWhatWasCalledBeforeAndGoodbyeLast) {
  greetFrom("Ada", notingBlock());
  core->resume();
  EXPECT_EQ(other->frames.waitFor(2), (Types{FrameType::hello, FrameType::call}));
  core->invalidate();
  EXPECT_EQ(other->frames.waitFor(3).back(), FrameType::goodbye);
  EXPECT_EQ(other->ends.waitFor(1), Texts{""});
}

TEST_F(Core, AnswersACallAndHasItsOwnAnswered) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  channel->send(encodeCall(1, greet, {NSString("Ada")}, true).frame);
  EXPECT_EQ(other->frames.waitFor(2), (Types{FrameType::hello, FrameType::reply}));
  greetFrom("Bob", notingBlock());
  other->frames.waitFor(3);
  channel->send(encodeReply(1, NSString("hello Bob")).frame);
  EXPECT_EQ(told.waitFor(2), (Texts{"hello Bob", "let go of"}));
}

// A burst comes to turns of the queue, in the order of the frames, whatever lies between them.
TEST_F(Core, ManyFramesAtOnceAreDealtWithInTheirOrder) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  constexpr std::uint64_t kMany = 40;
  for (std::uint64_t number = 1; number <= kMany; ++number) {
    greetFrom("Bob", {[told = &told](const NSObject& value) { told->put(value.as<NSString>().string()); }});
  }
  other->frames.waitFor(1 + kMany);
  greeter->onGreet = [told = &told](const NSString& name, const std::function<void(NSString)>&) {
    told->put(name.string());
  };
  Texts expected;
  for (std::uint64_t number = 1; number <= kMany; ++number) {
    const std::string text = std::to_string(number);
    const auto haste = number < kMany ? transport::Channel::Haste::afterNext : transport::Channel::Haste::now;
    channel->send(encodeReply(number, NSString("reply " + text)).frame, transport::Channel::Haste::afterNext);
    channel->send(encodeCall(number, greet, {NSString("call " + text)}, false).frame, haste);
    expected.push_back("reply " + text);
    expected.push_back("call " + text);
  }
  EXPECT_EQ(told.waitFor(2 * kMany), expected);
}

TEST_F(Core, ACallWhoseReplyIsIgnoredIsAnsweredOnceLikeAnyOther) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  greetFrom("Ada", ReplyBlock::ignored());
  other->frames.waitFor(2);
  channel->send(encodeReply(1, NSString("hello Ada")).frame);
  channel->send(encodeReply(1, NSString("hello again")).frame);
  EXPECT_EQ(lines.waitFor(1), Texts{"a test is cut off: a reply to no call: 1"});
}

TEST_F(Core, AMethodThatIsCalledWithoutAReplyGetsABlockAllTheSame) {
  core->resume();
  greeter->onGreet = [told = &told](const NSString&, const std::function<void(NSString)>& reply) {
    reply("for nobody");
    reply("and again");
    told->put("called");
  };
  channel->send(wire::Hello::ours().encode());
  channel->send(encodeCall(1, greet, {NSString("Ada")}, false).frame);
  channel->send(encodeCall(2, greet, {NSString("Bob")}, true).frame);
  EXPECT_EQ(told.waitFor(2), (Texts{"called", "called"}));
  EXPECT_EQ(other->frames.waitFor(2), (Types{FrameType::hello, FrameType::reply}));
}

TEST_F(Core, AReplyThatIsDroppedLetsGoOfItsBlockWithoutTheLock) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  greetFrom("Ada", notingBlock());
  other->frames.waitFor(2);
  channel->send(wire::encodeReplyDropped(1));
  EXPECT_EQ(told.waitFor(1), Texts{"let go of"});
}

TEST_F(Core, ARefusalIsReportedAndThenTheBlockLetGoOf) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  greetFrom("Ada", notingBlock());
  other->frames.waitFor(2);
  channel->send(wire::Refusal{1, wire::kNoSuchMethod, "there is none"}.encode(FrameType::refusal));
  EXPECT_EQ(told.waitFor(2), (Texts{"greet:reply: was refused by the other end: there is none", "let go of"}));
}

// A call that waits is more than the other end takes, as it says only now.
TEST_F(Core, AHelloRefusesWhatWaitsAndIsOverIt) {
  core->resume();
  for (std::size_t count = 0; count < limits::kInitialCalls; ++count) greetFrom("Ada", {});
  greetFrom("Bob", notingBlock());
  wire::Hello hello = wire::Hello::ours();
  hello.maximumFrameBytes = 10;
  channel->send(hello.encode());
  EXPECT_EQ(told.waitFor(2)[0].rfind("greet:reply: was not sent: bytes of a frame to this peer: ", 0), 0U);
  EXPECT_EQ(told.soFar()[1], "let go of");
}

TEST_F(Core, AnEndTellsTheCallsThenTheInterruptionThenTheInvalidation) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  greetFrom("Ada", notingBlock());
  other->frames.waitFor(2);
  channel->abort();
  EXPECT_EQ(told.waitFor(4), (Texts{"greet:reply:: a test was interrupted: the other end has vanished", "let go of",
                                    "interrupted", "invalidated"}));
  EXPECT_EQ(orders.soFar(), (Orders{false, false, false}));
  greetFrom("Bob", {});
  EXPECT_EQ(orders.waitFor(4).back(), false);
}

TEST_F(Core, AGoodbyeIsNoInterruption) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  channel->send(wire::encodeGoodbye());
  EXPECT_EQ(told.waitFor(1), Texts{"invalidated"});
  greetFrom("Ada", {});
  EXPECT_EQ(told.waitFor(2)[1], "greet:reply: was not sent: a test was invalidated by the other end");
  EXPECT_EQ(orders.soFar(), (Orders{true, true}));
}

TEST_F(Core, WhatFailsBecauseAnEndLeavesInGoodOrderIsToldSo) {
  core->resume();
  channel->send(wire::Hello::ours().encode());
  greetFrom("Ada", {});
  greetFrom("Bob", notingBlock());
  other->frames.waitFor(3);
  channel->send(wire::Refusal{1, wire::kArgumentRefused, "not her"}.encode(FrameType::refusal));
  EXPECT_EQ(orders.waitFor(1), Orders{false});
  core->invalidate();
  EXPECT_EQ(told.waitFor(4),
            (Texts{"greet:reply: was refused by the other end: not her",
                   "greet:reply:: a test was invalidated before the reply came", "let go of", "invalidated"}));
  EXPECT_EQ(orders.soFar(), (Orders{false, true, true}));
}

TEST_F(Core, AFrameBeforeTheHelloEndsItAndIsNotLookedAt) {
  core->resume();
  channel->send(encodeCall(1, greet, {NSString("Ada")}, true).frame);
  EXPECT_EQ(told.waitFor(2), (Texts{"interrupted", "invalidated"}));
  EXPECT_EQ(other->ends.waitFor(1).size(), 1U);
  EXPECT_EQ(lines.waitFor(1), Texts{"a test is cut off: the first frame is not a hello"});
  EXPECT_EQ(other->frames.soFar(), Types{FrameType::hello});
}

TEST_F(Core, WhatCannotConnectTellsWhyToTheCallsThatWait) {
  socketIsGone();
  greetFrom("Ada", {});
  core->resume();
  EXPECT_EQ(told.waitFor(2),
            (Texts{"greet:reply:: a test cannot be reached: there is one socket only", "invalidated"}));
  EXPECT_EQ(orders.soFar(), (Orders{false, false}));
}

TEST_F(Core, TheExportedObjectIsLetGoOfWhenTheEndIsTold) {
  std::weak_ptr<TestGreeter> weak;
  {
    const auto exported = std::make_shared<TestGreeter>();
    weak = exported;
    core->setExportedObject(protocolOf<Greeter>(), exported);
  }
  core->resume();
  EXPECT_FALSE(weak.expired());
  core->invalidate();
  EXPECT_TRUE(testing::eventually([&] { return weak.expired(); }));
  // After the end none is taken.
  core->setExportedObject(protocolOf<Greeter>(), greeter);
  EXPECT_EQ(greeter.use_count(), 1);
}

}  // namespace
}  // namespace velto::xpc
