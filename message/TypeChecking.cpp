// The rules of strict types. A line of the log names the class of what failed and never prints the value: messages may
// hold what has no place in a log. The walk is bounded, because a mutable container can hold itself.
#include "message/TypeChecking.h"

#include <algorithm>
#include <string>

#include "message/ValuePath.h"
#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"

namespace {

// Of an object with a body of its own, which only a class can tell.
template <class... Ts>
bool isOfKind(const NSObject& value) {
  return value.body() != nullptr && (value.isKindOfClass(Ts::classObject()) || ...);
}

// The entries of a dictionary, where they lie.
class Entries : public velto::ObjectIterator {
 public:
  using ObjectIterator::ObjectIterator;
  using ObjectIterator::value;
};

// One check of one message.
class TypeCheck {
 public:
  // A quiet one writes no line.
  explicit TypeCheck(velto::WalkBound& bound, bool isQuiet = false, const Class& alsoPlain = nil)
      : bound_(bound), isQuiet_(isQuiet), alsoPlain_(alsoPlain) {}

  bool dictionary(const NSDictionary& dictionary) {
    const velto::WalkBound::Level level(bound_);
    if (!level) return refuseDepth();
    if (!dictionary.is<NSMutableDictionary>()) {
      const Entries end(dictionary, Entries::Place::end);
      for (Entries each(dictionary, Entries::Place::begin); each != end; ++each) {
        if (!acceptsAt(*each, each.value())) return false;
      }
      return true;
    }
    // One that can change is walked by the keys that it has now.
    return std::ranges::all_of(dictionary.allKeys(),
                               [&](const NSObject& key) { return acceptsAt(key, dictionary.objectForKey(key)); });
  }

  bool array(const NSArray& array) {
    const velto::WalkBound::Level level(bound_);
    if (!level) return refuseDepth();
    std::size_t index = 0;
    for (const NSObject& element : array) {
      if (!accepts(element)) {
        place_.addIndex(index);
        return false;
      }
      ++index;
    }
    return true;
  }

  // Where what failed lies.
  const velto::ValuePath& place() const noexcept { return place_; }
  // Of what class it is; or how much there is too much.
  const std::string& reason() const noexcept { return reason_; }

 private:
  bool accepts(const NSObject& value) {
    if (!bound_.visit()) return refuseCount();
    return isPlain(value) || refuseClass(value);
  }

  bool acceptsAt(const NSObject& key, const NSObject& value) {
    if (accepts(value)) return true;
    place_.addKey(key);
    return false;
  }

  bool isPlain(const NSObject& value) {
    if (value.is<NSString>() || value.is<NSNumber>()) return true;
    if (value.is<NSDictionary>()) return dictionary(value.as<NSDictionary>());
    if (value.is<NSArray>()) return array(value.as<NSArray>());
    return value.is<NSData>() || isOfKind<NSString, NSNumber, NSDictionary, NSArray, NSData>(value) ||
           (alsoPlain_ && value.isKindOfClass(alsoPlain_));
  }

  bool refuseClass(const NSObject& value) {
    const Class aClass = value.getClass();
    // The innermost tells.
    if (reason_.empty()) reason_ = "is of class " + aClass.name().string();
    if (isQuiet_) return false;
    VKTLoggingLog(VKTLogGetAnchor(), 0, "Failed Type Checking with the following object %@ with ClassName %@", aClass,
                  NSStringFromClass(aClass));
    return false;
  }

  bool refuseDepth() {
    reason_ = "nests more than " + std::to_string(bound_.maximumDepth()) + " levels deep";
    if (isQuiet_) return false;
    VKTLoggingLog(VKTLogGetAnchor(), 0,
                  "Failed Type Checking: containers nest %u levels deep, at most %u can be checked",
                  bound_.maximumDepth() + 1, bound_.maximumDepth());
    return false;
  }

  bool refuseCount() {
    reason_ = "is one of more than " + std::to_string(bound_.maximumObjects()) + " values";
    if (isQuiet_) return false;
    VKTLoggingLog(VKTLogGetAnchor(), 0, "Failed Type Checking: the message holds %u values, at most %u can be checked",
                  bound_.maximumObjects() + 1, bound_.maximumObjects());
    return false;
  }

  velto::WalkBound& bound_;
  velto::ValuePath place_;
  std::string reason_;
  const bool isQuiet_;
  const Class alsoPlain_;
};

}  // namespace

bool checkDictionary(const NSDictionary& dictionary) {
  velto::WalkBound bound;
  return velto::checkDictionaryWithin(bound, dictionary);
}

bool checkArray(const NSArray& array) {
  velto::WalkBound bound;
  return velto::checkArrayWithin(bound, array);
}

namespace velto {

bool checkDictionaryWithin(WalkBound& bound, const NSDictionary& dictionary) {
  return TypeCheck(bound).dictionary(dictionary);
}

bool checkArrayWithin(WalkBound& bound, const NSArray& array) {
  return TypeCheck(bound).array(array);
}

std::optional<std::string> whyNotPlain(const NSDictionary& message, const Class& alsoPlain) {
  WalkBound bound;
  TypeCheck check(bound, true, alsoPlain);
  if (check.dictionary(message)) return std::nullopt;
  const std::string place = check.place().object().description().string();
  return (place.empty() ? "the message" : place) + " " + check.reason();
}

bool checkMessage(const NSDictionary& message) {
  WalkBound bound;
  TypeCheck check(bound);
  if (check.dictionary(message)) return true;
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "What is refused lies at %@", check.place().object());
  return false;
}

}  // namespace velto
