#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "broker/VeltoIPCNamesProtocol.h"

// What tools ask the broker over the same link, behind all that ends ask. A broker that does not know these refuses
// them as methods that it lacks.
class VeltoIPCObserverProtocol : public VeltoIPCNamesProtocol {
 public:
  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) override = 0;
  void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override = 0;
  void killListenerConnection(NSString name) override = 0;
  void registerName(NSString name, NSXPCListenerEndpoint endpoint, bool takingOver, Answer answer) override = 0;
  void giveBackName(NSString name, NSNumber registration) override = 0;
  void waitForName(NSString name, NSNumber seconds, std::function<void(NSXPCListenerEndpoint)> handle) override = 0;
  void waitForChangeOfName(NSString name, NSNumber knownRegistration, Answer answer) override = 0;
  void registerNameAgain(NSString name, NSXPCListenerEndpoint endpoint, NSNumber since, Answer answer) override = 0;
  void explainAbsenceOfName(NSString name, std::function<void(NSString)> answer) override = 0;

  // Answers once: {"names": […], "more": true} with the first names that come after this one (nil: all do), each a
  // velto::NameDescription, in the order of their bytes; "more" when there are others behind them.
  virtual void listNames(NSString after, Answer answer) = 0;
  // Answers once, with a velto::NameDescription, or nil when nothing stands under the name. Starts nothing.
  virtual void describeName(NSString name, Answer answer) = 0;
  // Answers once, with the broker's process, since when it runs, what it holds and what it may hold, and how often what
  // has been asked; docs/architecture.md.
  virtual void describeBroker(Answer answer) = 0;
  // Stands in for whoever has the name: look-ups get this endpoint, as long as that has a listener and this link lives,
  // and nothing else changes, whoever registers the name meanwhile. Refused when another stands in already, or there
  // is no room. Answers once, with an empty dictionary.
  virtual void standInForName(NSString name, NSXPCListenerEndpoint endpoint, Answer answer) = 0;
  // Answers once: whoever has the name now, for who stands in for it over this link; nil for everybody else.
  virtual void findListenerEndpointBehindName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) = 0;
};

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCObserverProtocol>();

namespace velto {

// A name as the broker knows it.
struct NameDescription {
  std::string name;
  NameState state;
  // Of the process that registered it; -1 when the broker does not know.
  std::int64_t user = -1;
  // Nanoseconds of the clock that all processes of the machine share.
  std::uint64_t since = 0;
  // The process that stands in for it; 0 when none does.
  std::int32_t standIn = 0;
};

// {"name": "org.example.sums", "registration": 3, "process": 4711, "user": 1000, "since": 12345678, "standIn": 0}
NSDictionary dictionaryOf(const NameDescription& description);
// None for nil, and for what is no description.
std::optional<NameDescription> nameDescriptionIn(const NSDictionary& dictionary);

}  // namespace velto
