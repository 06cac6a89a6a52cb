// All open containers share one list of finished objects; each knows where its own begin. A container is made at once
// from its part of the list when that is complete, with exactly the memory it needs.

#include "platform/xpc/wire/ContainerStack.h"

#include <iterator>
#include <utility>

#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSSet.h"
#include "platform/foundation/NSString.h"

namespace velto::wire {
namespace {

// Enough for most messages without growing.
constexpr std::size_t kUsualLevels = 8;
constexpr std::size_t kUsualObjects = 32;

}  // namespace

void ContainerStack::open(Kind kind, std::uint64_t items, std::uint64_t work) {
  if (levels_.capacity() == 0) {
    levels_.reserve(kUsualLevels);
    objects_.reserve(kUsualObjects);
  }
  Level& level = levels_.emplace_back();
  level.kind = kind;
  level.base = objects_.size();
  level.items = items;
  level.cost = ContainerCost(work, items);
}

void ContainerStack::openError(NSObject domain, NSObject code, std::uint64_t items, std::uint64_t work) {
  objects_.push_back(std::move(domain));
  objects_.push_back(std::move(code));
  open(Kind::error, items, work);
}

void ContainerStack::openCoded(CodedClass coded) {
  coded_.push_back(std::move(coded));
  open(Kind::coded, 1, 1);
}

void ContainerStack::push(NSObject object, const ComparisonCost& cost) {
  Level& top = levels_.back();
  const bool isPair = top.kind == Kind::dictionary || top.kind == Kind::error;
  const bool isKey = top.kind == Kind::set || (isPair && (objects_.size() - top.base) % 2 == 0);
  objects_.push_back(std::move(object));
  if (isKey) {
    top.cost.addKey(cost);
  } else {
    top.cost.addValue(cost);
  }
}

ContainerStack::Level ContainerStack::popLevel(ComparisonCost& cost) noexcept {
  const Level level = levels_.back();
  cost = level.cost.toCompare();
  levels_.pop_back();
  return level;
}

NSObject ContainerStack::close(ComparisonCost& cost) {
  const Level level = popLevel(cost);
  switch (level.kind) {
    case Kind::dictionary:
      return closeDictionary(level.base);
    case Kind::set:
      return closeSet(level.base);
    case Kind::error:
      return closeError(level.base);
    default:
      return NSArray::arrayWithObjects(takeFrom(level.base));
  }
}

NSObject ContainerStack::closeCoded(CodedClass& coded, ComparisonCost& cost) {
  popLevel(cost);
  coded = std::move(coded_.back());
  coded_.pop_back();
  NSObject contents = std::move(objects_.back());
  objects_.pop_back();
  return contents;
}

void ContainerStack::clear() noexcept {
  levels_.clear();
  objects_.clear();
  coded_.clear();
}

std::vector<NSObject> ContainerStack::takeFrom(std::size_t base) {
  const auto first = objects_.begin() + static_cast<std::ptrdiff_t>(base);
  std::vector<NSObject> taken(std::make_move_iterator(first), std::make_move_iterator(objects_.end()));
  objects_.erase(first, objects_.end());
  return taken;
}

NSObject ContainerStack::closeDictionary(std::size_t base) {
  const std::size_t pairs = (objects_.size() - base) / 2;
  std::vector<NSDictionary::Entry> entries;
  entries.reserve(pairs);
  for (std::size_t index = base; index < objects_.size(); index += 2) {
    entries.push_back({std::move(objects_[index]), std::move(objects_[index + 1])});
  }
  objects_.resize(base);
  NSDictionary dictionary = NSDictionary::dictionaryWithEntries(std::move(entries));
  return dictionary.count() == pairs ? dictionary : nil;
}

NSObject ContainerStack::closeSet(std::size_t base) {
  std::vector<NSObject> elements = takeFrom(base);
  const std::size_t count = elements.size();
  NSSet set = NSSet::setWithObjects(std::move(elements));
  return set.count() == count ? set : nil;
}

NSObject ContainerStack::closeError(std::size_t base) {
  const NSObject userInfo = closeDictionary(base);
  if (userInfo.isNil()) return nil;
  const std::int64_t code = objects_.back().integerValue();
  objects_.pop_back();
  const NSString domain = objects_.back().as<NSString>();
  objects_.pop_back();
  return NSError::errorWithDomain(domain, code, userInfo.as<NSDictionary>());
}

}  // namespace velto::wire
