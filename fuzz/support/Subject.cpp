// The table of the fuzzed protocol, and an object behind it that touches everything it is given.

#include "fuzz/support/Subject.h"

#include <stdexcept>
#include <utility>

#include "fuzz/support/Require.h"
#include "platform/foundation/UTF8.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::fuzzing::Subject>() {
  using velto::fuzzing::Subject;
  static const Protocol& table =
      *new Protocol("Subject", {
                                   method<&Subject::greet>("greet:reply:", Requirement::required),
                                   method<&Subject::keep>("keep:reply:", Requirement::required),
                                   method<&Subject::tell>("tell:", Requirement::required, Way::oneWay),
                                   method<&Subject::flag>("flag:", Requirement::required),
                                   method<&Subject::introduce>("introduce:reply:", Requirement::required),
                                   method<&Subject::echo>("echo:reply:", Requirement::required),
                                   method<&Subject::report>("report:", Requirement::required),
                                   method<&Subject::refuse>("refuse", Requirement::required),
                                   method<&Subject::raise>("raise", Requirement::required),
                                   method<&Subject::wave>("wave", Requirement::optional),
                               });
  return table;
}

namespace velto::fuzzing {
namespace {

void use(const NSObject& value) {
  static_cast<void>(value.hash());
  require(isValidUTF8(value.description().view()), "a description is UTF-8");
}

}  // namespace

const std::shared_ptr<NSXPCInterface>& Subject::interface() {
  static const auto& made = *new std::shared_ptr<NSXPCInterface>(NSXPCInterface::interfaceWithProtocol<Subject>());
  return made;
}

void ExportedSubject::greet(NSString name, std::function<void(NSString)> reply) {
  use(name);
  reply("hello " + name.string());
}

void ExportedSubject::keep(NSDictionary news, std::function<void(NSDictionary)> reply) {
  use(news);
  kept.push_back(std::move(reply));
}

void ExportedSubject::tell(NSDictionary news) {
  use(news);
}

void ExportedSubject::flag(bool) {}

void ExportedSubject::introduce(NSXPCListenerEndpoint endpoint, std::function<void(NSXPCListenerEndpoint)> reply) {
  use(endpoint);
  reply(endpoint);
}

void ExportedSubject::echo(NSObject value, std::function<void(NSObject)> reply) {
  use(value);
  reply(value);
}

void ExportedSubject::report(NSError error) {
  use(error);
}

void ExportedSubject::refuse() {
  throw NSXPCRefusal("not today");
}

void ExportedSubject::raise() {
  throw std::runtime_error("a callback that fails");
}

}  // namespace velto::fuzzing
