#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSNumber.h"

// What a newer broker is asked besides, over the same link. An older one refuses these as methods that it lacks; the
// three of VeltoIPCDaemonProtocol do without them.
//
// Each registration has a number, greater than 0, that no other of the same broker ever has. What stands under a name
// is told by its number; 0 is nothing. Who knows what stands can wait until it is something else, and so misses
// nothing.
class VeltoIPCNamesProtocol : public VeltoIPCDaemonProtocol {
 public:
  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) override = 0;
  void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override = 0;
  void killListenerConnection(NSString name) override = 0;

  using Answer = std::function<void(NSDictionary)>;

  // Keeps a listener's endpoint under a name; in place of another listener's that lives only if it may take over.
  // Answers once, with a velto::NameAnswer.
  virtual void registerName(NSString name, NSXPCListenerEndpoint endpoint, bool takingOver, Answer answer) = 0;
  // Forgets what is kept under a name if it is the registration of that number, made by the same process.
  virtual void giveBackName(NSString name, NSNumber registration) = 0;
  // Answers once: with the endpoint as soon as there is one under the name; with nil when there is none after so many
  // seconds, or when the broker needs the room. Without a number it waits until the link ends. Refused when too many
  // wait.
  virtual void waitForName(NSString name, NSNumber seconds, std::function<void(NSXPCListenerEndpoint)> handle) = 0;
  // Answers once: with a velto::NameState as soon as that is not the registration of this number, 0 for none; with nil
  // when the broker needs the room. Refused when too many wait.
  virtual void waitForChangeOfName(NSString name, NSNumber knownRegistration, Answer answer) = 0;
  // For a broker that has restarted: what was registered at this time already, in nanoseconds of the clock that all
  // processes of the machine share. Of two listeners of one name the later one has it. Answers as registerName does.
  virtual void registerNameAgain(NSString name, NSXPCListenerEndpoint endpoint, NSNumber since, Answer answer) = 0;
  // Answers once: with why there was nothing under the name when it was looked up last, as far as there is more to say
  // than that; nil otherwise.
  virtual void explainAbsenceOfName(NSString name, std::function<void(NSString)> answer) = 0;
};

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCNamesProtocol>();

namespace velto {

// What stands under a name.
struct NameState {
  // 0 when nothing does.
  std::uint64_t registration = 0;
  // That of who registered it; 0 when the broker's kernel does not tell.
  std::int32_t process = 0;

  friend bool operator==(const NameState&, const NameState&) = default;
};

// What became of a registration: it stands; or it is refused and why, or another's stands.
struct NameAnswer {
  NameState state;
  bool isTaken = false;
  std::string refusal;

  bool stands() const { return !isTaken && refusal.empty(); }
};

// {"registration": 3, "process": 4711}
NSDictionary dictionaryOf(const NameState& state);
NameState nameStateIn(const NSDictionary& dictionary);
// The same with {"taken": true} for another's; or {"refused": "why"}.
NSDictionary dictionaryOf(const NameAnswer& answer);
NameAnswer nameAnswerIn(const NSDictionary& dictionary);

}  // namespace velto
