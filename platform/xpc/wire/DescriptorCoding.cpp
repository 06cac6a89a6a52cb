// The registry of classes that travel as descriptors: few, registered at start, asked for rarely.

#include "platform/xpc/wire/DescriptorCoding.h"

#include <algorithm>
#include <map>
#include <utility>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto::wire {
namespace {

class Registry {
 public:
  void add(const Class& aClass, DescriptorCoding coding) VELTO_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    classes_.insert_or_assign(aClass.classBody()->name(), DescriptorClass{aClass, std::move(coding)});
  }
  DescriptorClass find(std::string_view name) VELTO_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const auto found = classes_.find(name);
    return found != classes_.end() ? found->second : DescriptorClass{};
  }
  std::size_t descriptorsOfOneObject(const ClassSet& admitted) VELTO_EXCLUDES(mutex_) {
    std::size_t most = 0;
    MutexLock lock(mutex_);
    for (const auto& [name, each] : classes_) {
      if (admitted.admits(each.classObject)) most = std::max(most, each.coding.most);
    }
    return most;
  }

 private:
  Mutex mutex_;
  std::map<std::string, DescriptorClass, std::less<>> classes_ VELTO_GUARDED_BY(mutex_);
};

// Never destroyed: a worker may still decode while the process exits.
Registry& registry() {
  static Registry& made = *new Registry;
  return made;
}

}  // namespace

void registerDescriptorCoding(const Class& aClass, DescriptorCoding coding) {
  registry().add(aClass, std::move(coding));
}

DescriptorClass descriptorClassNamed(std::string_view name) {
  return registry().find(name);
}

std::size_t descriptorsOfOneObject(const ClassSet& admitted) {
  return registry().descriptorsOfOneObject(admitted);
}

}  // namespace velto::wire
