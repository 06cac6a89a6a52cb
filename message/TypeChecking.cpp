// The rules of strict types. A line of the log names the class of what failed and never prints the value: messages may
// hold what has no place in a log. Where it lies is told in a line of its own, for whoever asks for details. The walk
// is bounded, because a mutable container can hold itself.
#include "message/TypeChecking.h"

#include "message/ValuePath.h"
#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"

namespace {

template <class T>
bool isKindOf(const NSObject& value) {
  return value.is<T>() || value.isKindOfClass(T::classObject());
}

// One check of one message.
class TypeCheck {
 public:
  explicit TypeCheck(velto::WalkBound& bound) : bound_(bound) {}

  bool dictionary(const NSDictionary& dictionary) {
    const velto::WalkBound::Level level(bound_);
    if (!level) return refuseDepth();
    for (const NSObject& key : dictionary.allKeys()) {
      if (accepts(dictionary.objectForKey(key))) continue;
      path_.addKey(key);
      return false;
    }
    return true;
  }

  bool array(const NSArray& array) {
    const velto::WalkBound::Level level(bound_);
    if (!level) return refuseDepth();
    std::size_t index = 0;
    for (const NSObject& element : array) {
      if (!accepts(element)) {
        path_.addIndex(index);
        return false;
      }
      ++index;
    }
    return true;
  }

  // For the end of the check; `passes` is what came out of it.
  bool told(bool passes) const {
    if (!passes) VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "What is refused lies at %@", path_.object());
    return passes;
  }

 private:
  bool accepts(const NSObject& value) {
    if (!bound_.visit()) return refuseCount();
    return isPlain(value) || refuseClass(value);
  }

  bool isPlain(const NSObject& value) {
    if (isKindOf<NSString>(value) || isKindOf<NSNumber>(value)) return true;
    if (isKindOf<NSDictionary>(value)) return dictionary(value.as<NSDictionary>());
    if (isKindOf<NSArray>(value)) return array(value.as<NSArray>());
    return isKindOf<NSData>(value);
  }

  static bool refuseClass(const NSObject& value) {
    const Class aClass = value.getClass();
    VKTLoggingLog(VKTLogGetAnchor(), 0, "Failed Type Checking with the following object %@ with ClassName %@", aClass,
                  NSStringFromClass(aClass));
    return false;
  }

  bool refuseDepth() const {
    VKTLoggingLog(VKTLogGetAnchor(), 0,
                  "Failed Type Checking: containers nest %u levels deep, at most %u can be checked",
                  bound_.maximumDepth() + 1, bound_.maximumDepth());
    return false;
  }

  bool refuseCount() const {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "Failed Type Checking: the message holds %u values, at most %u can be checked",
                  bound_.maximumObjects() + 1, bound_.maximumObjects());
    return false;
  }

  velto::WalkBound& bound_;
  velto::ValuePath path_;
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
  TypeCheck check(bound);
  return check.told(check.dictionary(dictionary));
}

bool checkArrayWithin(WalkBound& bound, const NSArray& array) {
  TypeCheck check(bound);
  return check.told(check.array(array));
}

}  // namespace velto
