#pragma once

#include <string>
#include <utility>

#include "platform/foundation/ContainerBody.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/OrderedEntries.h"

namespace velto {

// The entries of an NSDictionary or NSMutableDictionary.
class DictionaryBody final : public ContainerBody {
 public:
  explicit DictionaryBody(Mutability mutability) : ContainerBody(mutability) {}
  DictionaryBody(OrderedEntries entries, Mutability mutability)
      : ContainerBody(mutability), entries_(std::move(entries)) {}

  const OrderedEntries& entries() const noexcept { return entries_; }
  OrderedEntries& entries() noexcept { return entries_; }

  std::size_t count() const noexcept override { return entries_.count(); }
  std::size_t slotCount() const noexcept override { return entries_.slots().size(); }
  const NSObject& objectInSlot(std::size_t slot) const noexcept override { return entries_.slots()[slot].key; }

  const ClassBody& classBody() const override;
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override;
  std::size_t hash() const override { return entries_.count(); }
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  OrderedEntries entries_;
};

}  // namespace velto
