// Lookups. Most keys are short texts, which lie in their handles: such a one is found by comparing words, and only a
// text that can change may be equal to it in another form.
#include "platform/foundation/KeyTable.h"

#include <bit>

#include "platform/foundation/StringBody.h"
#include "platform/foundation/Walk.h"

namespace velto {

template <class Matches>
const NSObject* KeyTable::search(std::size_t hash, const Matches& matches) const {
  const std::size_t mask = cellCount_ - 1;
  const auto partOfHash = static_cast<std::uint32_t>(hash);
  for (std::size_t place = partOfHash & mask; cells_[place].position != 0; place = (place + 1) & mask) {
    if (cells_[place].hash != partOfHash) continue;
    const NSObject& each = key(cells_[place].position - 1);
    if (matches(each)) return &each;
  }
  return nullptr;
}

template <class Matches>
const NSObject* KeyTable::scan(const Matches& matches) const {
  const NSObject* const end = keys_ + slots_ * stride_;
  for (const NSObject* each = keys_; each != end; each += stride_) {
    if (matches(*each)) return each;
  }
  return nullptr;
}

const NSObject* KeyTable::find(const NSObject& key, WalkBound& bound) const {
  if (key.isNil() || slots_ == 0) return nullptr;
  return findHashed(key, cellCount_ == 0 ? 0 : key.hash(), bound);
}

const NSObject* KeyTable::find(const NSObject& key) const {
  WalkBound bound;
  return find(key, bound);
}

const NSObject* KeyTable::findText(std::string_view text) const {
  if (text.size() <= Value::kMaximumText) return find(NSObject::adopt(Value::ofShortText(text)));
  const auto matches = [text](const NSObject& each) {
    return !each.value().isText() && isString(each.value().tag()) && textOf(each.value()) == text;
  };
  return lookUp(cellCount_ == 0 ? 0 : hashOfText(text), matches);
}

const NSObject* KeyTable::findHashed(const NSObject& key, std::size_t hash, WalkBound& bound) const {
  const Value& sought = key.value();
  if (sought.isText()) {
    if (cellCount_ == 0) {
      bool mayBeInAnotherForm = false;
      const NSObject* const end = keys_ + slots_ * stride_;
      for (const NSObject* each = keys_; each != end; each += stride_) {
        if (each->value() == sought) return each;
        mayBeInAnotherForm = mayBeInAnotherForm || each->value().tag() == Tag::mutableString;
      }
      if (!mayBeInAnotherForm) return nullptr;
    }
    return lookUp(hash, [&sought](const NSObject& each) {
      return each.value() == sought ||
             (each.value().tag() == Tag::mutableString && textOf(each.value()) == textOf(sought));
    });
  }
  if (isString(sought.tag())) {
    const std::string_view text = textOf(sought);
    return lookUp(
        hash, [text](const NSObject& each) { return isString(each.value().tag()) && textOf(each.value()) == text; });
  }
  // Containers one by one: their hashes tell them apart without a walk to their first difference.
  const bool comparesHashes = cellCount_ == 0 && isContainer(sought.tag());
  const std::size_t hashOfKey = comparesHashes ? key.hash() : 0;
  return lookUp(hash, [&](const NSObject& each) {
    if (each.isNil() || (comparesHashes && !each.isIdenticalTo(key) && each.hash() != hashOfKey)) return false;
    return isEqualWithin(bound, each, key);
  });
}

void KeyTable::enter(Cell* cells, std::size_t cellCount, std::size_t hash, std::size_t position) noexcept {
  const std::size_t mask = cellCount - 1;
  const auto partOfHash = static_cast<std::uint32_t>(hash);
  std::size_t place = partOfHash & mask;
  while (cells[place].position != 0) place = (place + 1) & mask;
  cells[place] = {partOfHash, static_cast<std::uint32_t>(position + 1)};
}

}  // namespace velto
