#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "message/PeerProtocol.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// What an end of these tests exports: answers each message as its test tells it to, at first with the message itself.
class Answering final : public VeltoCommunicationMessageProtocol {
 public:
  Answering() { echo(); }

  using Reaction = std::function<void(NSDictionary, VeltoReplyHandler)>;

  // From the next message on.
  void onMessage(Reaction reaction) {
    MutexLock lock(mutex_);
    std::swap(reaction_, reaction);
  }
  void echo() {
    onMessage([](const NSDictionary& message, const VeltoReplyHandler& reply) {
      if (reply) reply(message);
    });
  }

  void connectionID(NSString, NSDictionary withMessage, VeltoReplyHandler handler) override {
    Reaction reaction;
    {
      MutexLock lock(mutex_);
      reaction = reaction_;
    }
    reaction(std::move(withMessage), std::move(handler));
  }
  void connectionError(NSError) override {}
  void setStrictMessageTypesRemote(bool) override {}
  void connectionUUID(NSString) override {}
  void ping() override {}

 private:
  Mutex mutex_;
  Reaction reaction_ VELTO_GUARDED_BY(mutex_);
};

// Accepts every connection, exports one object to all.
class Service final : public NSXPCListenerDelegate {
 public:
  // Before the first connection comes: `adjust` changes what is admitted.
  static std::shared_ptr<Service> start(std::function<void(NSXPCInterface&)> adjust = {});
  ~Service() override;

  NSXPCListenerEndpoint endpoint() const { return listener_->endpoint(); }
  std::vector<std::shared_ptr<NSXPCConnection>> accepted() const;
  // The first connection, once it is there.
  std::shared_ptr<NSXPCConnection> waitForOne() const;

  const std::shared_ptr<Answering> exported = std::make_shared<Answering>();

  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

 private:
  explicit Service(std::function<void(NSXPCInterface&)> adjust) : adjust_(std::move(adjust)) {}

  const std::function<void(NSXPCInterface&)> adjust_;
  std::shared_ptr<NSXPCListener> listener_;
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<NSXPCConnection>> accepted_ VELTO_GUARDED_BY(mutex_);
};

// A client's end. Its calls are counted, because the number of a call is part of its size.
class Client {
 public:
  explicit Client(const NSXPCListenerEndpoint& endpoint, const std::function<void(NSXPCInterface&)>& adjust = {});
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Without a reply.
  void tell(const NSDictionary& message);
  // With one, that the test waits for; what the other end answers with, or nil when an error came instead.
  std::future<NSDictionary> ask(const NSDictionary& message);
  // The connection carries a message and its reply.
  bool works();
  // The next error, once `count` have come.
  NSError error(std::size_t count = 1);

  // A message whose call, if it is made next, has a body of exactly so many bytes.
  NSDictionary messageOfBodyBytes(std::size_t bytes, bool wantsReply) const;

  const std::shared_ptr<Answering> exported = std::make_shared<Answering>();
  ProxyErrors errors;
  std::shared_ptr<NSXPCConnection> connection;

 private:
  std::uint64_t calls_ = 0;
};

// A test of limits: once its own ends are gone, everything that it has opened is closed.
class LimitTest : public QuietTest {
 protected:
  LimitTest();
  ~LimitTest() override;

 private:
  std::size_t atRest_ = 0;
};

// An error of this code whose text holds these words.
void expectRefusal(const NSError& error, std::int64_t code, const std::string& words);

// The body of a call of the message, as every end encodes it.
std::size_t bodyBytes(std::uint64_t identifier, const NSDictionary& message, bool wantsReply);
NSDictionary dataOf(std::size_t bytes);
// The same message, with text that is as long in place of the data.
NSDictionary asText(const NSDictionary& message);

// A gate that callbacks wait at. A handle: give callbacks a copy, since they may outlive their test.
class Gate {
 public:
  void wait() const { state_->opened.wait(); }
  void open() const { state_->promise.set_value(); }

 private:
  struct State {
    std::promise<void> promise;
    const std::shared_future<void> opened = promise.get_future().share();
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace velto::testing
