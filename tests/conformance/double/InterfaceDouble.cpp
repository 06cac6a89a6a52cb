// The members of NSXPCInterface, as the double has them. The sets are kept with the platform double, where tests can
// look at them.

#include "tests/conformance/double/InterfaceDouble.h"

#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSXPCInterface.h"
#include "tests/conformance/double/PlatformDouble.h"

using velto::testing::InterfaceDouble;
using velto::testing::PlatformDouble;

// The platform's own entries stay empty.
struct NSXPCInterface::Entry {};

namespace velto::testing {
namespace {

NSSet defaultSet(const xpc::Parameter& parameter) {
  if (parameter.classObject != NSDictionary::classObject()) return NSSet{parameter.classObject};
  return NSSet{parameter.classObject, NSString::classObject(), NSNumber::classObject(), NSDate::classObject()};
}

std::string describe(const NSString& selector, std::size_t index, bool ofReply) {
  return selector.string() + " " + std::to_string(index) + (ofReply ? " YES" : " NO");
}

}  // namespace

std::map<InterfaceDouble::Key, NSSet> defaultClasses(const xpc::Protocol& protocol) {
  std::map<InterfaceDouble::Key, NSSet> classes;
  for (const xpc::Method& method : protocol.methods()) {
    for (const bool ofReply : {false, true}) {
      const auto& parameters = ofReply ? method.replyParameters : method.parameters;
      for (std::size_t index = 0; index < parameters.size(); ++index) {
        classes.emplace(InterfaceDouble::Key(method.selector, index, ofReply), defaultSet(parameters[index]));
      }
    }
  }
  return classes;
}

}  // namespace velto::testing

NSXPCInterface::NSXPCInterface(const velto::xpc::Protocol& protocol) : protocol_(protocol) {
  PlatformDouble::current().interfaceMade(this, protocol);
}

NSXPCInterface::~NSXPCInterface() = default;

NSSet NSXPCInterface::classesForSelector(const NSString& selector, std::size_t argumentIndex, bool ofReply) const {
  PlatformDouble& platform = PlatformDouble::current();
  platform.noteInterface(this, "classesForSelector " + velto::testing::describe(selector, argumentIndex, ofReply));
  const auto classes = platform.interfaceOf(this).classes;
  const auto found = classes.find(InterfaceDouble::Key(selector.string(), argumentIndex, ofReply));
  return found != classes.end() ? found->second : nil;
}

void NSXPCInterface::setClasses(const NSSet& classes, const NSString& forSelector, std::size_t argumentIndex,
                                bool ofReply) {
  PlatformDouble& platform = PlatformDouble::current();
  platform.noteInterface(this, "setClasses " + velto::testing::describe(forSelector, argumentIndex, ofReply));
  platform.storeClasses(this, InterfaceDouble::Key(forSelector.string(), argumentIndex, ofReply), classes);
}
