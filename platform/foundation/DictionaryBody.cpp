// What a dictionary holds: how it is compared and described.
#include "platform/foundation/DictionaryBody.h"

#include <utility>

#include "platform/foundation/Class.h"
#include "platform/foundation/Walk.h"

namespace velto {

const ClassBody& DictionaryBody::classBody() const {
  return isMutable() ? classBodyOf<NSMutableDictionary>() : classBodyOf<NSDictionary>();
}

bool DictionaryBody::isEqual(const ObjectBody& other, WalkBound& bound) const {
  const auto* dictionary = bodyAs<DictionaryBody>(&other);
  if (dictionary == nullptr || dictionary->count() != count()) return false;
  const ComparedLevel level(bound);
  for (const OrderedEntries::Slot& slot : entries_.slots()) {
    if (slot.key.isNil()) continue;
    const OrderedEntries::Slot* found = dictionary->entries_.find(slot.key, bound);
    if (found == nullptr || !isEqualWithin(bound, slot.value, found->value)) return false;
  }
  return true;
}

void DictionaryBody::describe(std::string& out, WalkBound& bound) const {
  const WalkBound::Level level(bound);
  if (!level) {
    out += "…";
    return;
  }
  out += "{";
  const char* separator = "";
  for (const OrderedEntries::Slot& slot : entries_.slots()) {
    if (slot.key.isNil()) continue;
    if (isDescribedEnough(out)) return;
    out += std::exchange(separator, "; ");
    describeWithin(bound, slot.key, out);
    if (isDescribedEnough(out)) return;
    out += " = ";
    describeWithin(bound, slot.value, out);
  }
  out += "}";
}

}  // namespace velto
