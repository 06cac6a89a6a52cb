// Two orders of the same waiters: by their names, and by their links. Nodes move from here to whoever takes them out.
#include "daemon/Waiters.h"

#include <exception>

#include "platform/logging/VeltoLogging.h"

namespace velto {

void Waiters::add(const std::string& name, Item item, Waiter waiter) {
  const Registrant* const link = waiter.link;
  const auto added = all_.emplace(std::pair(name, item), std::move(waiter)).first;
  try {
    ofLinks_.emplace(std::pair(link, item), added);
  } catch (...) {
    all_.erase(added);
    throw;
  }
}

Waiters::Waiter* Waiters::find(std::string_view name, Item item) {
  const auto found = all_.find(Place(name, item));
  return found != all_.end() ? &found->second : nullptr;
}

void Waiters::takeOut(Some::const_iterator waiter, Some& taken) {
  ofLinks_.erase({waiter->second.link, waiter->first.second});
  taken.insert(all_.extract(waiter));
}

void Waiters::takeOut(std::string_view name, Item item, Some& taken) {
  const auto found = all_.find(Place(name, item));
  if (found != all_.end()) takeOut(found, taken);
}

void Waiters::takeOutOfName(std::string_view name, Some& taken) {
  auto next = all_.lower_bound(Place(name, 0));
  while (next != all_.end() && next->first.first == name) takeOut(next++, taken);
}

void Waiters::takeOutOfLink(const Registrant& link, Some& taken) {
  auto next = ofLinks_.lower_bound({&link, 0});
  while (next != ofLinks_.end() && next->first.first == &link) takeOut((next++)->second, taken);
}

void Waiters::tell(const Some& waiters, const std::optional<Standing>& standing) {
  for (const auto& [place, waiter] : waiters) {
    try {
      waiter.answer(standing);
    } catch (const std::exception& error) {
      VKTLoggingLog(VKTLogGetAnchor(), 0, "One that waits for %@ was not told: %s", NSString(place.first),
                    error.what());
    }
  }
}

}  // namespace velto
