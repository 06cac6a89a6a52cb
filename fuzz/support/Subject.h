#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/Protocol.h"

namespace velto::fuzzing {

// What both ends of a fuzzed connection may call: a method of every shape.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual void greet(NSString name, std::function<void(NSString)> reply) = 0;
  virtual void keep(NSDictionary news, std::function<void(NSDictionary)> reply) = 0;
  virtual void tell(NSDictionary news) = 0;
  virtual void flag(bool value) = 0;
  virtual void introduce(NSXPCListenerEndpoint endpoint, std::function<void(NSXPCListenerEndpoint)> reply) = 0;
  virtual void echo(NSObject value, std::function<void(NSObject)> reply) = 0;
  virtual void report(NSError error) = 0;
  virtual void refuse() = 0;
  virtual void raise() = 0;
  virtual void wave() { throw NSXPCUnrecognizedSelector("wave"); }

  // Every argument with its default class set.
  static const std::shared_ptr<NSXPCInterface>& interface();
};

// The exported object: uses what it gets, answers at once, and keeps the reply blocks of keep:reply:.
class ExportedSubject final : public Subject {
 public:
  void greet(NSString name, std::function<void(NSString)> reply) override;
  void keep(NSDictionary news, std::function<void(NSDictionary)> reply) override;
  void tell(NSDictionary news) override;
  void flag(bool value) override;
  void introduce(NSXPCListenerEndpoint endpoint, std::function<void(NSXPCListenerEndpoint)> reply) override;
  void echo(NSObject value, std::function<void(NSObject)> reply) override;
  void report(NSError error) override;
  void refuse() override;
  void raise() override;

  std::deque<std::function<void(NSDictionary)>> kept;
};

}  // namespace velto::fuzzing

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::fuzzing::Subject>();
