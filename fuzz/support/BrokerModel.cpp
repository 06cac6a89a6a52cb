#include "fuzz/support/BrokerModel.h"

#include <algorithm>

#include "platform/xpc/contract/Limits.h"

namespace velto::fuzzing {

bool BrokerModel::isName(const std::string& text) {
  return !text.empty() && text.size() <= velto::limits::kMaximumNameBytes;
}

std::size_t BrokerModel::namesOf(std::size_t process) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(names, [&](const auto& each) { return each.second.process == process; }));
}

bool BrokerModel::mayRegister(std::uint64_t link, std::size_t process, const std::string& name) const {
  if (!isName(name)) return false;
  const auto standing = names.find(name);
  const bool isNew = standing == names.end();
  if (!isNew && standing->second.link == link) return true;
  const auto own = std::ranges::count_if(names, [&](const auto& each) { return each.second.link == link; });
  if (static_cast<std::size_t>(own) >= limits.namesOfOneLink) return false;
  const bool isOwn = !isNew && standing->second.process == process;
  if (!isOwn && namesOf(process) >= limits.namesOfOneProcess) return false;
  return !isNew || names.size() < limits.names || namesOf(1 - process) > namesOf(process) + 1;
}

void BrokerModel::makeRoomForName(std::size_t process, const std::string& name) {
  if (names.contains(name) || names.size() < limits.names) return;
  auto newest = names.end();
  for (auto each = names.begin(); each != names.end(); ++each) {
    if (each->second.process == process) continue;
    if (newest == names.end() || each->second.age > newest->second.age) newest = each;
  }
  forget(newest);
}

void BrokerModel::forget(Names::iterator entry) {
  if (entry == names.end()) return;
  changed(entry->first);
  names.erase(entry);
}

void BrokerModel::changed(const std::string& name) {
  for (Wait& each : waits) each.isDue = each.isDue || each.name == name;
}

std::size_t BrokerModel::waitersOf(std::size_t process) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(waits, [&](const Wait& each) { return each.process == process && !each.isDue; }));
}

bool BrokerModel::mayWait(std::size_t process, Wait*& leaving) {
  const std::size_t own = waitersOf(process), others = waitersOf(1 - process);
  if (own >= limits.waitersOfOneProcess) return false;
  if (own + others < limits.waiters) return true;
  for (Wait& each : waits) {
    if (each.process != process && !each.isDue) leaving = &each;
  }
  return others > own + 1;
}

}  // namespace velto::fuzzing
