// That the listener of a stand-in is gone is asked at each look-up: its process may have died, and its link not have
// ended here yet.
#include "daemon/StandIns.h"

#include <algorithm>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

std::shared_ptr<StandIns> StandIns::make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger) {
  return std::shared_ptr<StandIns>(new StandIns(limits, std::move(ledger)));
}

std::string StandIns::refusal(const NSString& name, Link link) const {
  const auto found = names_.find(name.view());
  if (found != names_.end()) {
    if (found->second.link == link || found->second.endpoint.isGone()) return "";
    return "process " + std::to_string(found->second.process) + " stands in for " + name.string() + " already";
  }
  const auto own = static_cast<std::size_t>(
      std::ranges::count_if(names_, [link](const auto& each) { return each.second.link == link; }));
  const auto over = [](const char* what, std::size_t value, std::size_t maximum) {
    if (value < maximum) return std::string();
    return std::string(what) + " would be " + std::to_string(value + 1) + "; the maximum is " + std::to_string(maximum);
  };
  const std::string ofLink = over("stand-ins of one link", own, limits_.standInsOfOneLink);
  return ofLink.empty() ? over("stand-ins", names_.size(), limits_.standIns) : ofLink;
}

void StandIns::add(const NSString& name, const NSXPCListenerEndpoint& endpoint, const Holder& holder, Link link) {
  if (!endpoint) throw NSXPCRefusal("the endpoint is nil");
  if (name.length() == 0 || name.length() > limits::kMaximumNameBytes) throw NSXPCRefusal("nobody can serve the name");
  auto giveWay = [weak = weak_from_this(), key = name.string()](Ledger::Item item, const std::string& why) {
    if (const auto self = weak.lock()) self->giveWay(key, item, why);
  };
  // Made before the lock, and let go of after it, as is what it replaces.
  Names entry;
  entry.emplace(name.string(), StandIn{endpoint, holder.process, link, 0});
  Names replaced;
  std::string reason;
  Ledger::Admission admission;
  {
    MutexLock lock(mutex_);
    reason = refusal(name, link);
    if (reason.empty()) {
      const auto found = names_.find(name.view());
      ledger_->enter(admission, Ledger::Kind::name, holder, std::move(giveWay),
                     found != names_.end() ? found->second.item : 0);
      reason = admission.reason;
      if (admission.item != 0) {
        if (found != names_.end()) replaced.insert(names_.extract(found));
        entry.begin()->second.item = admission.item;
        names_.insert(entry.extract(entry.begin()));
      }
    }
  }
  if (!reason.empty()) throw NSXPCRefusal(reason);
}

void StandIns::leave(Link link) {
  Names left;
  MutexLock lock(mutex_);
  for (auto next = names_.begin(); next != names_.end();) {
    const auto each = next++;
    if (each->second.link != link) continue;
    ledger_->leave(each->second.item);
    left.insert(names_.extract(each));
  }
}

void StandIns::giveWay(const std::string& name, Ledger::Item item, const std::string& why) {
  Names left;
  {
    MutexLock lock(mutex_);
    const auto found = names_.find(name);
    if (found == names_.end() || found->second.item != item) return;
    left.insert(names_.extract(found));
  }
  VKTLoggingLog(VKTLogGetAnchor(), 0, "The stand-in for %@ makes room: %s", NSString(name), why);
}

NSXPCListenerEndpoint StandIns::inFrontOf(const NSString& name, const NSXPCListenerEndpoint& found) const {
  if (!found) return found;
  NSXPCListenerEndpoint standIn;
  {
    MutexLock lock(mutex_);
    if (names_.empty()) return found;
    const auto place = names_.find(name.view());
    if (place == names_.end()) return found;
    standIn = place->second.endpoint;
  }
  return standIn.isGone() ? found : standIn;
}

bool StandIns::isOf(const NSString& name, Link link) const {
  MutexLock lock(mutex_);
  const auto found = names_.find(name.view());
  return found != names_.end() && found->second.link == link;
}

std::int32_t StandIns::processAt(const std::string& name) const {
  StandIn standIn;
  {
    MutexLock lock(mutex_);
    const auto found = names_.find(name);
    if (found == names_.end()) return 0;
    standIn = found->second;
  }
  return standIn.endpoint.isGone() ? 0 : standIn.process;
}

std::size_t StandIns::count() const {
  MutexLock lock(mutex_);
  return names_.size();
}

}  // namespace velto
