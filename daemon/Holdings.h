#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

namespace velto {

// Who holds how much of what all share, and who holds the most. Every question is answered without looking at all
// holders, however many they are.
//
// Of one thread. What throws for want of memory has changed nothing.
class Holdings {
 public:
  // Numbers; what they stand for is the user's. An item that is greater is newer.
  using Holder = std::uint64_t;
  using Item = std::uint64_t;
  enum class Kind { link, name, waiter };
  // By what holders are compared: how many links, how many names, how many descriptors of both, how many waiters.
  enum Measure : std::size_t { kLinks, kNames, kDescriptors, kWaiters, kMeasures };
  using Amounts = std::array<std::size_t, kMeasures>;

  struct Entry {
    Kind kind;
    Holder holder;
    std::uint64_t lastUse;
  };

  void add(Item item, Kind kind, Holder holder);
  void remove(Item item);
  // The item has just been used.
  void use(Item item);
  // All names of one holder become another's.
  void giveNames(Holder from, Holder to);

  // None when the item is not held.
  std::optional<Entry> find(Item item) const;
  Amounts of(Holder holder) const;
  const Amounts& ofAll() const noexcept { return total_; }
  // Holders of anything.
  std::size_t holders() const noexcept { return accounts_.size(); }
  // Who has the most by a measure; some holder must have something.
  Holder greatest(Measure measure) const { return rankings_[measure].rbegin()->second; }
  // Its newest name or waiter, or the link that it has not used for the longest time; it must have one.
  Item nextToGo(Holder holder, Kind kind) const;

  static std::size_t descriptorsOf(Kind kind);

 private:
  using Items = std::map<std::uint64_t, Item>;  // in the order of their last use
  class Account {
   public:
    Items& of(Kind kind) { return items_[static_cast<std::size_t>(kind)]; }
    const Items& of(Kind kind) const { return items_[static_cast<std::size_t>(kind)]; }
    Amounts amounts() const;

   private:
    std::array<Items, 3> items_;
  };
  using Accounts = std::map<Holder, Account>;

  Accounts::iterator open(Holder holder);
  void closeIfEmpty(Accounts::iterator account);
  void rerank(Accounts::iterator account, const Amounts& before);

  Accounts accounts_;
  std::unordered_map<Item, Entry> entries_;
  // Every holder stands in all of them.
  std::array<std::set<std::pair<std::size_t, Holder>>, kMeasures> rankings_;
  Amounts total_{};
  std::uint64_t lastUse_ = 0;
};

}  // namespace velto
