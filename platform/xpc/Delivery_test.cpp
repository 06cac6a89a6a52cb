// Callbacks in a loop of the user's, or wherever an executor runs them.

#include "platform/xpc/Delivery.h"

#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>

#include <poll.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Greeter.h"

namespace velto::testing {
namespace {

bool isReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

// Tasks that wait until the test runs them. What is delivered so holds it.
class Tasks : public std::enable_shared_from_this<Tasks> {
 public:
  Delivery delivery() {
    return Delivery([self = shared_from_this()](std::function<void()> task) {
      if (self->refusals > 0 && self->refusals-- > 0) throw std::runtime_error("no room");
      const std::lock_guard lock(self->mutex_);
      if (!self->isOver_) self->tasks_.push_back(std::move(task));
    });
  }
  // Those that wait, and all that come.
  void dropAll() {
    std::deque<std::function<void()>> dropped;
    const std::lock_guard lock(mutex_);
    isOver_ = true;
    tasks_.swap(dropped);
  }
  bool runOne() {
    std::function<void()> task;
    {
      const std::lock_guard lock(mutex_);
      if (tasks_.empty()) return false;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
    return true;
  }

  std::atomic<int> refusals{0};

 private:
  std::mutex mutex_;
  bool isOver_ = false;
  std::deque<std::function<void()>> tasks_;
};

class Deliveries : public ::testing::Test {
 protected:
  void deliverOn(const Delivery& delivery) {
    const auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
    for (const auto& end : {ends.first, ends.second}) {
      end->setRemoteObjectInterface(interface);
      end->setExportedInterface(interface);
    }
    ends.second->setExportedObject<Greeter>(greeter);
    ends.second->deliverOn(delivery);
    ends.second->resume();
    ends.first->resume();
    proxy =
        ends.first->remoteObjectProxyWithErrorHandler<Greeter>([this](NSError error) { errors.put(std::move(error)); });
  }
  ~Deliveries() override {
    ends.first->invalidate();
    ends.second->invalidate();
    tasks->dropAll();
  }

  const std::shared_ptr<Tasks> tasks = std::make_shared<Tasks>();
  const std::pair<std::shared_ptr<NSXPCConnection>, std::shared_ptr<NSXPCConnection>> ends = NSXPCConnection::pair();
  const std::shared_ptr<TestGreeter> greeter = std::make_shared<TestGreeter>();
  std::shared_ptr<NSXPCProxy<Greeter>> proxy;
  Inbox<NSError> errors;
};

TEST_F(Deliveries, InALoopHappenWhenItDispatchesAndOnlyThere) {
  const Loop loop;
  deliverOn(loop);
  EXPECT_FALSE(isReadable(loop.fd()));
  Inbox<std::thread::id> threads;
  greeter->onTell = [&](const NSDictionary&) {
    EXPECT_TRUE(Loop::isDispatching());
    threads.put(std::this_thread::get_id());
  };
  proxy->call<&Greeter::tell>(NSDictionary{{"a", 1}});
  ASSERT_TRUE(eventually([&] { return isReadable(loop.fd()); }));
  EXPECT_TRUE(isReadable(loop.fd())) << "for as long as something waits";
  EXPECT_TRUE(threads.soFar().empty());
  EXPECT_FALSE(loop.dispatch());
  EXPECT_EQ(threads.soFar(), std::vector(1, std::this_thread::get_id()));
  EXPECT_FALSE(isReadable(loop.fd()));
  EXPECT_FALSE(Loop::isDispatching());
}

TEST_F(Deliveries, OfALoopThatIsBusyBoundItsSenders) {
  const Loop loop;
  deliverOn(loop);
  const auto writable = std::make_shared<std::atomic<std::size_t>>(0);
  ends.first->setWritableHandler([writable] { ++*writable; });
  std::size_t sent = 0;
  while (ends.first->isWritable()) {
    proxy->call<&Greeter::tell>(NSDictionary{{"n", static_cast<std::int64_t>(sent)}});
    ++sent;
  }
  EXPECT_LE(sent, limits::kUndeliveredCalls + 1);
  EXPECT_EQ(*writable, 0u);
  while (greeter->told.soFar().size() < sent) loop.dispatch();
  EXPECT_TRUE(eventually([&] { return *writable == 1; }));
  EXPECT_TRUE(ends.first->isWritable());
  EXPECT_TRUE(errors.soFar().empty());
}

// One looks while the socket is being emptied, and what another waits for is told all the same.
TEST_F(Deliveries, ToldOfAreRoomForAllWhoWaitForItWhoeverLooksBefore) {
  const Loop loop;
  deliverOn(loop);
  const auto writable = std::make_shared<std::atomic<std::size_t>>(0);
  ends.first->setWritableHandler([writable] { ++*writable; });
  const std::vector<std::uint8_t> bytes(std::size_t{1} << 19);
  const NSDictionary large{{"data", NSData::dataWithBytes(bytes.data(), bytes.size())}};
  for (int sent = 0; sent < 8 || ends.first->isWritable(); ++sent) proxy->call<&Greeter::tell>(large);
  while (!ends.first->isWritable()) loop.dispatch();
  EXPECT_TRUE(eventually([&] {
    loop.dispatch();
    return *writable == 1;
  }));
}

TEST_F(Deliveries, WhereAnExecutorRunsThemStayInOrder) {
  tasks->refusals = 2;
  deliverOn(tasks->delivery());
  for (int number = 0; number < 100; ++number) proxy->call<&Greeter::tell>(NSDictionary{{"n", number}});
  EXPECT_TRUE(eventually([&] {
    while (tasks->runOne()) {
    }
    return greeter->told.soFar().size() == 100;
  }));
  const auto told = greeter->told.soFar();
  for (std::size_t number = 0; number < told.size(); ++number) {
    EXPECT_EQ(told[number]["n"].integerValue(), static_cast<std::int64_t>(number));
  }
}

TEST_F(Deliveries, OfALoopThatIsGoneAreLetGoOf) {
  std::optional<Loop> loop(std::in_place);
  deliverOn(*loop);
  proxy->call<&Greeter::tell>(NSDictionary{{"a", 1}});
  ASSERT_TRUE(eventually([&] { return isReadable(loop->fd()); }));
  { const Loop same = *loop; }
  EXPECT_TRUE(isReadable(loop->fd())) << "copies are the same loop";
  const std::weak_ptr<int> waits = [&] {
    const auto held = std::make_shared<int>(0);
    ends.second->perform([held] { FAIL(); });
    return held;
  }();
  EXPECT_FALSE(waits.expired());
  loop.reset();
  EXPECT_TRUE(waits.expired());
  ends.second->setInvalidationHandler([held = std::make_shared<int>(0)] { FAIL(); });
  ends.second->invalidate();
  EXPECT_EQ(greeter.use_count(), 1) << "what it exported is let go of all the same";
  EXPECT_TRUE(greeter->told.soFar().empty());
}

TEST_F(Deliveries, ThatAnExecutorLetsGoOfAreLetGoOf) {
  deliverOn(tasks->delivery());
  ends.second->perform([] { FAIL(); });
  EXPECT_EQ(greeter.use_count(), 2);
  tasks->dropAll();
  ends.second->invalidate();
  EXPECT_EQ(greeter.use_count(), 1);
}

TEST_F(Deliveries, OfAnEndComeBehindWhoHearsOfItAtOnce) {
  const Loop loop;
  deliverOn(loop);
  std::promise<void> ended;
  ends.second->setEndHandler([&] { ended.set_value(); });
  ends.first->invalidate();
  ended.get_future().wait();
  EXPECT_TRUE(eventually([&] { return isReadable(loop.fd()); })) << "what is delivered about it waits";
}

TEST_F(Deliveries, AReplyThatIsDroppedIsToldToABlockThatAsks) {
  deliverOn({});
  greeter->onGreet = [](const NSString&, const std::function<void(NSString)>&) {};
  std::promise<void> dropped;
  proxy->call<&Greeter::greet>(
      "Ada", NonBlockingReply<NSString>{[](const NSString&) { FAIL(); }, [&] { dropped.set_value(); }});
  dropped.get_future().wait();
}

TEST_F(Deliveries, AnErrorHandlerThatNeverBlocksNeedsNoTurnInTheQueue) {
  deliverOn({});
  Inbox<NSError> here;
  const auto strict = ends.first->remoteObjectProxyWithErrorHandler<Greeter>(
      NonBlockingReply<NSError>{[&](NSError error) { here.put(std::move(error)); }});
  NSObject deep = 1;
  for (std::size_t level = 0; level <= limits::kMaximumDepth; ++level) deep = NSArray{deep};
  strict->call<&Greeter::tell>(NSDictionary{{"deep", deep}});
  EXPECT_EQ(here.soFar().size(), 1u) << "on the thread that finds it";
}

}  // namespace
}  // namespace velto::testing
