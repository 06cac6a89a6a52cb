// Class sets by method and argument. Each is kept twice: as the set that was given, to be read back, and in the form
// that the decoder asks.

#include "platform/xpc/interface/NSXPCInterface.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

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
  // Of one method.
  struct Entries {
    std::vector<Entry> ofArguments;
    std::vector<Entry> ofReply;
  };

  explicit Table(const Method* methods, std::vector<Entries> all = {}) : first(methods), entries(std::move(all)) {}

  // Null for a method or an index that there is none of.
  const Entry* find(const Key& key) const {
    const auto& [method, index, ofReply] = key;
    if (method == nullptr) return nullptr;
    const Entries& each = entries[static_cast<std::size_t>(method - first)];
    const std::vector<Entry>& found = ofReply ? each.ofReply : each.ofArguments;
    return index < found.size() ? &found[index] : nullptr;
  }

  // This one with one set, that it has, changed. Who makes the same change next gets the same table.
  std::shared_ptr<const Table> with(const Key& key, const NSSet& classes) const {
    velto::MutexLock lock(mutex_);
    auto found = changedLast_.lock();
    if (found && changedKey_ == key && changedClasses_.isEqual(classes)) return found;
    const auto changed = std::make_shared<Table>(first, entries);
    *const_cast<Entry*>(changed->find(key)) = Entry{classes, velto::wire::ClassSet(classes)};
    changedLast_ = changed;
    changedKey_ = key;
    changedClasses_ = classes;
    return changed;
  }

  // The protocol's methods, and what is of each.
  const Method* const first;
  std::vector<Entries> entries;

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
    const auto made = std::make_shared<Table>(protocol.methods().data());
    const auto add = [](const std::vector<Parameter>& parameters, std::vector<Entry>& entries) {
      for (const Parameter& parameter : parameters) {
        const NSSet classes = defaultClasses(parameter);
        entries.push_back({classes, velto::wire::ClassSet(classes)});
      }
    };
    for (const Method& method : protocol.methods()) {
      Table::Entries& entries = made->entries.emplace_back();
      add(method.parameters, entries.ofArguments);
      add(method.replyParameters, entries.ofReply);
    }
    protocol.defaults_ = made;
  });
  return std::static_pointer_cast<const Table>(protocol.defaults_);
}

NSXPCInterface::~NSXPCInterface() = default;

NSSet NSXPCInterface::classesForSelector(const NSString& selector, std::size_t argumentIndex, bool ofReply) const {
  const Entry* found = table_->find({protocol_.methodForSelector(selector.view()), argumentIndex, ofReply});
  return found != nullptr ? found->classes.copy() : nil;
}

void NSXPCInterface::setClasses(const NSSet& classes, const NSString& forSelector, std::size_t argumentIndex,
                                bool ofReply) {
  const Key key(protocol_.methodForSelector(forSelector.view()), argumentIndex, ofReply);
  if (table_->find(key) == nullptr) {
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
  std::size_t most = 0;
  for (std::size_t number = 0; number < table_->entries.size(); ++number) {
    const Table::Entries& ofMethod = table_->entries[number];
    const std::vector<Entry>& entries = ofReply ? ofMethod.ofReply : ofMethod.ofArguments;
    const std::vector<Parameter>& parameters = parametersOf(protocol_.methods()[number], ofReply);
    std::size_t ofAll = 0;
    for (std::size_t index = 0; index < entries.size(); ++index) {
      const std::size_t ofOne = velto::wire::descriptorsOfOneObject(entries[index].admitted);
      if (ofOne == 0) continue;
      // What is declared as something else can hold as many as there may be.
      const Class& declared = parameters[index].classObject;
      const bool isOne = !velto::wire::descriptorClassNamed(declared.classBody()->name()).classObject.isNil();
      ofAll += isOne ? ofOne : velto::limits::kMaximumDescriptors;
    }
    most = std::max(most, std::min(ofAll, velto::limits::kMaximumDescriptors));
  }
  return most;
}

bool NSXPCInterface::admitsData(bool ofReply) const {
  const auto mayBeData = [](const Entry& entry) { return entry.admitted.admits(velto::wire::PlainClass::data); };
  return std::ranges::any_of(table_->entries, [&](const Table::Entries& ofMethod) {
    return std::ranges::any_of(ofReply ? ofMethod.ofReply : ofMethod.ofArguments, mayBeData);
  });
}

const velto::wire::ClassSet& NSXPCInterface::admitted(const Method& method, std::size_t argumentIndex,
                                                      bool ofReply) const {
  return table_->find({&method, argumentIndex, ofReply})->admitted;
}
