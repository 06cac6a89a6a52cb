// The registry of the classes that travel, by name. It lives for ever, since threads may decode until the process ends.
#include "platform/foundation/NSCoding.h"

#include <map>
#include <memory>
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

  // Under the lock no coding is copied or destroyed: what it captured is a user's.
  using Entry = std::shared_ptr<const CodedClass>;

  // Returns what was registered before.
  Entry exchange(const std::string& name, Entry coded) {
    MutexLock lock(mutex_);
    return std::exchange(classes_[name], std::move(coded));
  }

  Entry find(std::string_view name) {
    MutexLock lock(mutex_);
    const auto found = classes_.find(name);
    return found != classes_.end() ? found->second : nullptr;
  }

 private:
  Mutex mutex_;
  std::map<std::string, Entry, std::less<>> classes_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace

void registerClassCoding(const Class& aClass, ClassCoding coding) {
  if (aClass.isNil()) return;
  auto coded = std::make_shared<const CodedClass>(CodedClass{aClass, std::move(coding)});
  CodingRegistry::shared().exchange(aClass.classBody()->name(), std::move(coded));
}

CodedClass codedClassNamed(std::string_view name) {
  const auto found = CodingRegistry::shared().find(name);
  return found ? *found : CodedClass{};
}

}  // namespace velto
