// Each holder has one place in each ranking from its first item to its last. Moving up and down only moves the nodes of
// the sets, so that it needs no memory and cannot fail half-way.
#include "daemon/Holdings.h"

#include <iterator>

#include "VeltoIPC/Limits.h"

namespace velto {

std::size_t Holdings::descriptorsOf(Kind kind) {
  if (kind == Kind::waiter) return 0;
  return kind == Kind::link ? 1 : limits::kBrokerDescriptorsOfOneName;
}

Holdings::Amounts Holdings::Account::amounts() const {
  const std::size_t links = of(Kind::link).size(), names = of(Kind::name).size();
  const std::size_t descriptors = links * descriptorsOf(Kind::link) + names * descriptorsOf(Kind::name);
  return {links, names, descriptors, of(Kind::waiter).size()};
}

Holdings::Accounts::iterator Holdings::open(Holder holder) {
  const auto [account, isNew] = accounts_.try_emplace(holder);
  if (!isNew) return account;
  try {
    for (auto& ranking : rankings_) ranking.emplace(0, holder);
  } catch (...) {
    closeIfEmpty(account);
    throw;
  }
  return account;
}

void Holdings::closeIfEmpty(Accounts::iterator account) {
  if (account->second.amounts() != Amounts{}) return;
  for (auto& ranking : rankings_) ranking.erase({0, account->first});
  accounts_.erase(account);
}

void Holdings::rerank(Accounts::iterator account, const Amounts& before) {
  const Amounts after = account->second.amounts();
  for (std::size_t measure = 0; measure < kMeasures; ++measure) {
    auto place = rankings_[measure].extract({before[measure], account->first});
    place.value().first = after[measure];
    rankings_[measure].insert(std::move(place));
    total_[measure] = total_[measure] - before[measure] + after[measure];
  }
}

void Holdings::add(Item item, Kind kind, Holder holder) {
  const auto account = open(holder);
  const Amounts before = account->second.amounts();
  try {
    const auto entry = entries_.emplace(item, Entry{kind, holder, lastUse_ + 1}).first;
    try {
      account->second.of(kind).emplace(lastUse_ + 1, item);
    } catch (...) {
      entries_.erase(entry);
      throw;
    }
  } catch (...) {
    closeIfEmpty(account);
    throw;
  }
  ++lastUse_;
  rerank(account, before);
}

void Holdings::remove(Item item) {
  const auto entry = entries_.find(item);
  if (entry == entries_.end()) return;
  const auto account = accounts_.find(entry->second.holder);
  const Amounts before = account->second.amounts();
  account->second.of(entry->second.kind).erase(entry->second.lastUse);
  entries_.erase(entry);
  rerank(account, before);
  closeIfEmpty(account);
}

void Holdings::use(Item item) {
  const auto entry = entries_.find(item);
  if (entry == entries_.end()) return;
  Items& items = accounts_.find(entry->second.holder)->second.of(entry->second.kind);
  auto node = items.extract(entry->second.lastUse);
  node.key() = entry->second.lastUse = ++lastUse_;
  items.insert(std::move(node));
}

void Holdings::giveNames(Holder from, Holder to) {
  const auto giver = accounts_.find(from);
  if (giver == accounts_.end() || giver->second.of(Kind::name).empty()) return;
  const auto taker = open(to);
  const Amounts ofGiver = giver->second.amounts();
  const Amounts ofTaker = taker->second.amounts();
  for (const auto& [lastUse, item] : giver->second.of(Kind::name)) entries_.find(item)->second.holder = to;
  taker->second.of(Kind::name).merge(giver->second.of(Kind::name));
  rerank(giver, ofGiver);
  rerank(taker, ofTaker);
  closeIfEmpty(giver);
}

std::optional<Holdings::Entry> Holdings::find(Item item) const {
  const auto entry = entries_.find(item);
  if (entry == entries_.end()) return std::nullopt;
  return entry->second;
}

Holdings::Amounts Holdings::of(Holder holder) const {
  const auto account = accounts_.find(holder);
  return account != accounts_.end() ? account->second.amounts() : Amounts{};
}

Holdings::Item Holdings::nextToGo(Holder holder, Kind kind) const {
  const Items& items = accounts_.find(holder)->second.of(kind);
  return kind == Kind::link ? items.begin()->second : std::prev(items.end())->second;
}

}  // namespace velto
