// What tools ask, as a table behind the older ones, and descriptions of names as dictionaries.
#include "broker/VeltoIPCObserverProtocol.h"

#include "platform/foundation/Foundation.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCObserverProtocol>() {
  using Observer = VeltoIPCObserverProtocol;
  static const Protocol& table = *new Protocol(
      "VeltoIPCObserverProtocol",
      {
          method<&Observer::sendListenerConnection>("sendListenerConnection:withName:", Requirement::required),
          method<&Observer::findListenerEndpointForName>("findListenerEndpointForName:handle:", Requirement::required),
          method<&Observer::killListenerConnection>("killListenerConnection:", Requirement::required),
          method<&Observer::registerName>("registerName:endpoint:takingOver:answer:", Requirement::optional),
          method<&Observer::giveBackName>("giveBackName:registration:", Requirement::optional),
          method<&Observer::waitForName>("waitForName:seconds:handle:", Requirement::optional),
          method<&Observer::waitForChangeOfName>("waitForChangeOfName:knownRegistration:answer:",
                                                 Requirement::optional),
          method<&Observer::registerNameAgain>("registerNameAgain:endpoint:since:answer:", Requirement::optional),
          method<&Observer::explainAbsenceOfName>("explainAbsenceOfName:answer:", Requirement::optional),
          method<&Observer::listNames>("listNamesAfter:answer:", Requirement::optional),
          method<&Observer::describeName>("describeName:answer:", Requirement::optional),
          method<&Observer::describeBroker>("describeBroker:", Requirement::optional),
          method<&Observer::standInForName>("standInForName:endpoint:answer:", Requirement::optional),
          method<&Observer::findListenerEndpointBehindName>("findListenerEndpointBehindName:handle:",
                                                            Requirement::optional),
      });
  return table;
}

namespace velto {
namespace {

constexpr char kName[] = "name";
constexpr char kUser[] = "user";
constexpr char kSince[] = "since";
constexpr char kStandIn[] = "standIn";

}  // namespace

NSDictionary dictionaryOf(const NameDescription& description) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary(dictionaryOf(description.state));
  dictionary[kName] = description.name;
  dictionary[kUser] = description.user;
  dictionary[kSince] = description.since;
  dictionary[kStandIn] = description.standIn;
  return dictionary;
}

std::optional<NameDescription> nameDescriptionIn(const NSDictionary& dictionary) {
  NameDescription description{
      dictionary[kName].stringValue(), nameStateIn(dictionary), dictionary[kUser].to<std::int64_t>().value_or(-1),
      dictionary[kSince].to<std::uint64_t>().value_or(0), dictionary[kStandIn].to<std::int32_t>().value_or(0)};
  if (description.name.empty()) return std::nullopt;
  return description;
}

}  // namespace velto
