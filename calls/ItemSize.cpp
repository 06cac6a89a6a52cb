#include "calls/ItemSize.h"

#include <cstdint>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

namespace {

// About what an object takes besides its text or data.
constexpr std::size_t kObject = 16;

// What is deeper or has more objects is refused on its way; it may be the same container in many places.
class Walk {
 public:
  std::size_t of(const NSObject& value, std::size_t levels) {
    std::size_t size = kObject;
    if (value.is<NSString>()) return size + value.as<NSString>().length();
    if (value.is<NSData>()) return size + value.as<NSData>().length();
    if (levels == 0 || ++objects_ > limits::kMaximumObjects) return size;
    if (const auto dictionary = value.as<NSDictionary>()) {
      for (const auto& [key, each] : dictionary.pairs()) size += of(key, levels - 1) + of(each, levels - 1);
    } else if (const auto array = value.as<NSArray>()) {
      for (const NSObject& each : array) size += of(each, levels - 1);
    } else if (const auto set = value.as<NSSet>()) {
      for (const NSObject& each : set.allObjects()) size += of(each, levels - 1);
    }
    return size;
  }

 private:
  std::size_t objects_ = 0;
};

}  // namespace

std::size_t sizeOfItem(const NSObject& item) {
  return Walk().of(item, limits::kMaximumDepth);
}

}  // namespace velto::calls
