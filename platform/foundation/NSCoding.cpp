// The registry of the classes that travel, by name. It lives for ever, since threads may decode until the process ends.
#include "platform/foundation/NSCoding.h"

#include <map>
#include <string>
#include <utility>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto {
namespace {

class CodingRegistry {
 public:
  static CodingRegistry& shared() {
    static CodingRegistry& made = *new CodingRegistry;
    return made;
  }

  // What was registered before is let go of by the caller, outside the lock.
  CodedClass exchange(const std::string& name, CodedClass coded) {
    MutexLock lock(mutex_);
    return std::exchange(classes_[name], std::move(coded));
  }

  CodedClass find(std::string_view name) {
    MutexLock lock(mutex_);
    const auto found = classes_.find(name);
    return found != classes_.end() ? found->second : CodedClass{};
  }

 private:
  Mutex mutex_;
  std::map<std::string, CodedClass, std::less<>> classes_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace

void registerClassCoding(const Class& aClass, ClassCoding coding) {
  if (aClass.isNil()) return;
  CodingRegistry::shared().exchange(aClass.classBody()->name(), {aClass, std::move(coding)});
}

CodedClass codedClassNamed(std::string_view name) {
  return CodingRegistry::shared().find(name);
}

}  // namespace velto
