#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <tuple>

#include "platform/foundation/NSSet.h"
#include "platform/xpc/Protocol.h"

namespace velto::testing {

// What is known of an NSXPCInterface of the double. `number` counts the interfaces from 1.
//
//   interface#N interfaceWithProtocol PROTOCOL
//   interface#N classesForSelector SELECTOR INDEX YES|NO
//   interface#N setClasses SELECTOR INDEX YES|NO
struct InterfaceDouble {
  // Selector, argument index, of the reply.
  using Key = std::tuple<std::string, std::size_t, bool>;

  std::size_t number = 0;
  const xpc::Protocol* protocol = nullptr;
  // Every object argument of the protocol. The default set holds the argument's class; that of a dictionary also a
  // string, a number and a date, so that a default set of several classes is seen too.
  std::map<Key, NSSet> classes;

  std::string name() const { return "interface#" + std::to_string(number); }
};

// The sets as they are at first.
std::map<InterfaceDouble::Key, NSSet> defaultClasses(const xpc::Protocol& protocol);

}  // namespace velto::testing
