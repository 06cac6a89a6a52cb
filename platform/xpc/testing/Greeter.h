#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"
#include "platform/xpc/testing/Support.h"

namespace velto::testing {

// A protocol for tests, with a method of every shape.
class Greeter {
 public:
  virtual ~Greeter() = default;
  virtual void greet(NSString name, std::function<void(NSString)> reply) = 0;
  virtual void tell(NSDictionary news) = 0;
  virtual void flag(bool value) = 0;
  virtual void introduce(NSXPCListenerEndpoint endpoint, std::function<void(NSXPCListenerEndpoint)> reply) = 0;
  virtual void wave() { throw NSXPCUnrecognizedSelector("wave"); }
};

// Answers as the test tells it to.
class TestGreeter : public Greeter {
 public:
  std::function<void(NSString, std::function<void(NSString)>)> onGreet =
      [](const NSString& name, const std::function<void(NSString)>& reply) { reply("hello " + name.string()); };
  std::function<void(NSDictionary)> onTell = [this](NSDictionary news) { told.put(std::move(news)); };
  Inbox<NSDictionary> told;
  Inbox<bool> flags;
  Inbox<NSXPCListenerEndpoint> introduced;

  void greet(NSString name, std::function<void(NSString)> reply) override {
    onGreet(std::move(name), std::move(reply));
  }
  void tell(NSDictionary news) override { onTell(std::move(news)); }
  void flag(bool value) override { flags.put(value); }
  void introduce(NSXPCListenerEndpoint endpoint, std::function<void(NSXPCListenerEndpoint)> reply) override {
    introduced.put(endpoint);
    reply(endpoint);
  }
};

// Accepts every connection, exports one greeter to all, and keeps what happens.
class GreeterService : public NSXPCListenerDelegate, public std::enable_shared_from_this<GreeterService> {
 public:
  const std::shared_ptr<TestGreeter> greeter = std::make_shared<TestGreeter>();
  Inbox<std::shared_ptr<NSXPCConnection>> accepted;
  Inbox<std::string> events;
  std::function<void(NSXPCInterface&)> adjustExported = [](NSXPCInterface&) {};
  bool accepts = true;

  bool listener(const std::shared_ptr<NSXPCListener>&, const std::shared_ptr<NSXPCConnection>& connection) override {
    const auto exported = NSXPCInterface::interfaceWithProtocol<Greeter>();
    adjustExported(*exported);
    connection->setExportedInterface(exported);
    connection->setExportedObject<Greeter>(greeter);
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
    // Held weakly: the last handlers run when the test may be over.
    const auto note = [weak = weak_from_this()](const char* event) {
      if (const auto self = weak.lock()) self->events.put(event);
    };
    connection->setInterruptionHandler([note] { note("interrupted"); });
    connection->setInvalidationHandler([note] { note("invalidated"); });
    if (accepts) connection->resume();
    accepted.put(connection);
    return accepts;
  }
};

// A client's end with its handlers' events kept in order.
struct GreeterClient {
  explicit GreeterClient(std::shared_ptr<NSXPCConnection> made) : connection(std::move(made)) {
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
    connection->setExportedObject<Greeter>(greeter);
    connection->setInterruptionHandler([kept = events_] { kept->put("interrupted"); });
    connection->setInvalidationHandler([kept = events_] { kept->put("invalidated"); });
    connection->resume();
    proxy =
        connection->remoteObjectProxyWithErrorHandler<Greeter>([keptErrors = errors_, kept = events_](NSError error) {
          keptErrors->put(error);
          kept->put("error");
        });
  }

  std::string greet(const std::string& name) {
    auto answer = std::make_shared<std::promise<std::string>>();
    proxy->call<&Greeter::greet>(name, [answer](NSString text) { answer->set_value(text.string()); });
    auto future = answer->get_future();
    return future.wait_for(kGenerous) == std::future_status::ready ? future.get() : "no answer";
  }

  const std::shared_ptr<TestGreeter> greeter = std::make_shared<TestGreeter>();

 private:
  const std::shared_ptr<Inbox<std::string>> events_ = std::make_shared<Inbox<std::string>>();
  const std::shared_ptr<Inbox<NSError>> errors_ = std::make_shared<Inbox<NSError>>();

 public:
  Inbox<std::string>& events = *events_;
  Inbox<NSError>& errors = *errors_;
  const std::shared_ptr<NSXPCConnection> connection;
  std::shared_ptr<NSXPCProxy<Greeter>> proxy;
};

}  // namespace velto::testing

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::Greeter>();
