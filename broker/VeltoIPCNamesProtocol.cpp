// The broker's newer methods as a table behind the older ones, and what they answer as dictionaries.
#include "broker/VeltoIPCNamesProtocol.h"

#include "platform/foundation/Foundation.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCNamesProtocol>() {
  using Names = VeltoIPCNamesProtocol;
  static const Protocol& table = *new Protocol(
      "VeltoIPCNamesProtocol",
      {
          method<&Names::sendListenerConnection>("sendListenerConnection:withName:", Requirement::required),
          method<&Names::findListenerEndpointForName>("findListenerEndpointForName:handle:", Requirement::required),
          method<&Names::killListenerConnection>("killListenerConnection:", Requirement::required),
          method<&Names::registerName>("registerName:endpoint:takingOver:answer:", Requirement::optional),
          method<&Names::giveBackName>("giveBackName:registration:", Requirement::optional),
          method<&Names::waitForName>("waitForName:seconds:handle:", Requirement::optional),
          method<&Names::waitForChangeOfName>("waitForChangeOfName:knownRegistration:answer:", Requirement::optional),
          method<&Names::registerNameAgain>("registerNameAgain:endpoint:since:answer:", Requirement::optional),
          method<&Names::explainAbsenceOfName>("explainAbsenceOfName:answer:", Requirement::optional),
      });
  return table;
}

namespace velto {
namespace {

constexpr char kRegistration[] = "registration";
constexpr char kProcess[] = "process";
constexpr char kTaken[] = "taken";
constexpr char kRefused[] = "refused";

}  // namespace

NSDictionary dictionaryOf(const NameState& state) {
  return {{kRegistration, state.registration}, {kProcess, state.process}};
}

NameState nameStateIn(const NSDictionary& dictionary) {
  return {dictionary[kRegistration].to<std::uint64_t>().value_or(0),
          dictionary[kProcess].to<std::int32_t>().value_or(0)};
}

NSDictionary dictionaryOf(const NameAnswer& answer) {
  if (!answer.refusal.empty()) return {{kRefused, answer.refusal}};
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary(dictionaryOf(answer.state));
  if (answer.isTaken) dictionary[kTaken] = true;
  return dictionary;
}

NameAnswer nameAnswerIn(const NSDictionary& dictionary) {
  NameAnswer answer{nameStateIn(dictionary), dictionary[kTaken].boolValue(), dictionary[kRefused].stringValue()};
  if (answer.refusal.empty() && answer.state.registration == 0) answer.refusal = "the broker does not say why";
  return answer;
}

}  // namespace velto
