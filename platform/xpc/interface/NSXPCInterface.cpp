// Class sets by method and argument. Each is kept twice: as the set that was given, to be read back, and in the form
// that the decoder asks.

#include "platform/xpc/interface/NSXPCInterface.h"

#include <algorithm>
#include <mutex>
#include <string>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/ClassSet.h"
#include "platform/xpc/wire/DescriptorCoding.h"

using velto::xpc::Method;
using velto::xpc::Parameter;

struct NSXPCInterface::Entry {
  NSSet classes;
  velto::wire::ClassSet admitted;
};

// Never changed once an interface has it.
struct NSXPCInterface::Table {
  explicit Table(std::map<Key, Entry> all = {}) : entries(std::move(all)) {}

  // This one with one set changed. Who makes the same change next gets the same table.
  std::shared_ptr<const Table> with(const Key& key, const NSSet& classes) const {
    velto::MutexLock lock(mutex_);
    auto found = changedLast_.lock();
    if (found && changedKey_ == key && changedClasses_.isEqual(classes)) return found;
    const auto changed = std::make_shared<Table>(entries);
    changed->entries.at(key) = Entry{classes, velto::wire::ClassSet(classes)};
    changedLast_ = changed;
    changedKey_ = key;
    changedClasses_ = classes;
    return changed;
  }

  std::map<Key, Entry> entries;

 private:
  mutable velto::Mutex mutex_;
  mutable std::weak_ptr<const Table> changedLast_ VELTO_GUARDED_BY(mutex_);
  mutable Key changedKey_ VELTO_GUARDED_BY(mutex_);
  mutable NSSet changedClasses_ VELTO_GUARDED_BY(mutex_);
};

namespace {

// What a dictionary and every other container may hold.
const NSSet& valueClasses() {
  static const NSSet& classes =
      *new NSSet{NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(), NSArray::classObject(),
                 NSData::classObject(),   NSSet::classObject(),    NSDate::classObject(),       NSUUID::classObject(),
                 NSURL::classObject(),    NSNull::classObject(),   NSError::classObject()};
  return classes;
}

NSSet defaultClasses(const Parameter& parameter) {
  for (const Class& container :
       {NSDictionary::classObject(), NSArray::classObject(), NSSet::classObject(), NSError::classObject()}) {
    if (parameter.classObject.isSubclassOfClass(container)) return valueClasses();
  }
  return NSSet{parameter.classObject};
}

const std::vector<Parameter>& parametersOf(const Method& method, bool ofReply) {
  return ofReply ? method.replyParameters : method.parameters;
}

}  // namespace

NSXPCInterface::NSXPCInterface(const velto::xpc::Protocol& protocol)
    : protocol_(protocol), table_(defaultsOf(protocol)) {}

std::shared_ptr<const NSXPCInterface::Table> NSXPCInterface::defaultsOf(const velto::xpc::Protocol& protocol) {
  std::call_once(protocol.hasDefaults_, [&protocol] {
    const auto made = std::make_shared<Table>();
    for (const Method& method : protocol.methods()) {
      for (const bool ofReply : {false, true}) {
        const auto& parameters = parametersOf(method, ofReply);
        for (std::size_t index = 0; index < parameters.size(); ++index) {
          const NSSet classes = defaultClasses(parameters[index]);
          made->entries.emplace(Key(&method, index, ofReply), Entry{classes, velto::wire::ClassSet(classes)});
        }
      }
    }
    protocol.defaults_ = made;
  });
  return std::static_pointer_cast<const Table>(protocol.defaults_);
}

NSXPCInterface::~NSXPCInterface() = default;

NSSet NSXPCInterface::classesForSelector(const NSString& selector, std::size_t argumentIndex, bool ofReply) const {
  const Method* method = protocol_.methodForSelector(selector.view());
  const auto found = table_->entries.find(Key(method, argumentIndex, ofReply));
  return found != table_->entries.end() ? found->second.classes.copy() : nil;
}

void NSXPCInterface::setClasses(const NSSet& classes, const NSString& forSelector, std::size_t argumentIndex,
                                bool ofReply) {
  const Method* method = protocol_.methodForSelector(forSelector.view());
  const Key key(method, argumentIndex, ofReply);
  if (!table_->entries.contains(key)) {
    throw NSException("NSInvalidArgumentException", "protocol " + protocol_.name() + " has no argument " +
                                                        std::to_string(argumentIndex) + " of " + forSelector.string());
  }
  for (const NSObject& element : classes) {
    if (!element.as<Class>()) {
      throw NSException("NSInvalidArgumentException", "a class set holds class objects only");
    }
  }
  table_ = table_->with(key, classes.copy());
}

std::size_t NSXPCInterface::claimableDescriptors(bool ofReply) const {
  std::map<const Method*, std::size_t> ofMethods;
  std::size_t most = 0;
  for (const auto& [key, entry] : table_->entries) {
    const auto& [method, index, isOfReply] = key;
    const std::size_t ofOne = velto::wire::descriptorsOfOneObject(entry.admitted);
    if (isOfReply != ofReply || ofOne == 0) continue;
    // What is declared as something else can hold as many as there may be.
    const Class& declared = parametersOf(*method, ofReply)[index].classObject;
    const bool isOne = !velto::wire::descriptorClassNamed(declared.classBody()->name()).classObject.isNil();
    std::size_t& ofMethod = ofMethods[method];
    ofMethod =
        std::min(ofMethod + (isOne ? ofOne : velto::limits::kMaximumDescriptors), velto::limits::kMaximumDescriptors);
    most = std::max(most, ofMethod);
  }
  return most;
}

const velto::wire::ClassSet& NSXPCInterface::admitted(const Method& method, std::size_t argumentIndex,
                                                      bool ofReply) const {
  return table_->entries.at(Key(&method, argumentIndex, ofReply)).admitted;
}
