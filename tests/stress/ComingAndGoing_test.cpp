// Listeners that come and go under one name while clients look for it, and objects that are made, used and let go of
// inside the callbacks of others.
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/stress/StressTest.h"

namespace velto::testing {
namespace {

const char kComingName[] = "org.velto.test.coming";

using ComingAndGoing = StressTest;

TEST_F(ComingAndGoing, ListenersUnderTheirClients) {
  // What a client may be told when it finds no listener, or one that ends.
  static const std::set<std::string> kEnds = {"Listener not available", "Listener connection interrupted",
                                              "Listener connection invalidated"};
  std::atomic<bool> isOver{false};
  std::atomic<int> connected{0};
  auto listeners = inBackground([&] {
    while (!isOver) {
      ListenerEnd server(kComingName);
      server.delegate->echo();
      server.delegate->waitForReadies(1);
    }
  });
  inThreads(4, [&](Dice& dice) {
    for (int count = 0; count < 20; ++count) {
      ClientEnd client(kComingName);
      NSError error;
      if (client.connection->waitUntilReady(20.0, &error)) {
        ++connected;
        const NSDictionary message{{"number", dice.roll(1000)}};
        // A listener that was let go of in the meantime serves on, but has no delegate that would answer.
        NSError failure;
        checkedEnd(message, client.connection->sendMessageSync(message, 0.5, &failure), failure);
      } else if (error.domain() == NSString(kErrorDomain)) {
        EXPECT_TRUE(kEnds.contains(error.localizedDescription().string())) << error.description().view();
      }
    }
  });
  isOver = true;
  // The last listener may still wait for a client. (One that is closed serves on for as long as a client is connected
  // to it, so these must end before anybody waits for its end.)
  while (listeners.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    ClientEnd another(kComingName);
    another.connection->waitUntilReady(20.0);
  }
  finish(listeners);
  EXPECT_GT(connected, 0);
}

// A client, made before its readiness is looked at: its callbacks may come before its factory has returned.
class Link {
 public:
  Link() : delegate_(std::make_shared<RecordingDelegate>()) {}

  void open(std::function<void(VeltoConnection&)> whenReady) {
    delegate_->onReady([this, whenReady = std::move(whenReady), isMade = made_.get_future().share()](const NSString&) {
      isMade.wait();
      whenReady(*client_);
    });
    client_ = VeltoConnection::initWithServiceName(kComingName, delegate_);
    made_.set_value();
  }
  // Inside the callback too: the connection holds its client until it has ended.
  void letGo() { client_.reset(); }
  void quiesce() { delegate_->quiesce(); }

 private:
  const std::shared_ptr<RecordingDelegate> delegate_;
  std::shared_ptr<VeltoConnection> client_;
  std::promise<void> made_;
};

// Inside its readiness each client sends and waits, closes itself, is let go of, and makes the next.
void openChain(std::vector<Link>& links, std::size_t next, std::promise<void>& done) {
  if (next == links.size()) return done.set_value();
  links[next].open([&links, next, &done](VeltoConnection& client) {
    const NSDictionary message{{"depth", next}};
    NSError error;
    EXPECT_EQ(checkedEnd(message, client.sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error), error), End::replied);
    client.close();
    links[next].letGo();
    openChain(links, next + 1, done);
  });
}

TEST_F(ComingAndGoing, ClientsMadeAndDestroyedInsideTheCallbacksOfOthers) {
  ListenerEnd server(kComingName);
  server.delegate->echo();
  inThreads(4, [](Dice&) {
    std::vector<Link> links(10);
    std::promise<void> done;
    openChain(links, 0, done);
    std::future<void> end = done.get_future();
    finish(end);
    for (Link& link : links) link.quiesce();
  });
}

// A listener whose callbacks close it, send over it and let go of it, while its clients go on sending.
TEST_F(ComingAndGoing, ListenersClosedAndLetGoOfInsideTheirCallbacks) {
  for (int round = 0; round < 10; ++round) {
    const std::string name = kComingName + std::to_string(round);
    auto server = std::make_unique<ListenerEnd>(name);
    server->delegate->onMessage([listener = std::weak_ptr(server->listener)](
                                    const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
      const auto alive = listener.lock();
      if (alive && message["number"].integerValue() == 5) alive->close();
      if (alive) alive->sendMessage(message, id);
      reply(message);
    });
    inThreads(3, [&](Dice&) {
      ClientEnd client(name);
      client.delegate->echo();
      if (!client.connection->waitUntilReady(20.0)) return;
      for (int number = 0; number < 10; ++number) {
        const NSDictionary message{{"number", number}};
        NSError error;
        checkedEnd(message, client.connection->sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error), error);
      }
    });
  }
}

}  // namespace
}  // namespace velto::testing
