// One answer has a bounded number of names: whoever wants more asks for what comes after the last.
#include "daemon/Observer.h"

#include <chrono>
#include <utility>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

std::uint64_t nowForObservers() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace

Observer::Observer(const BrokerLimits& limits, std::shared_ptr<const Registry> registry,
                   std::shared_ptr<const Ledger> ledger, std::shared_ptr<const StandIns> standIns)
    : limits_(limits),
      registry_(std::move(registry)),
      ledger_(std::move(ledger)),
      standIns_(std::move(standIns)),
      since_(nowForObservers()) {}

NSDictionary Observer::dictionaryOf(NameDescription description) const {
  description.standIn = standIns_->processAt(description.name);
  return velto::dictionaryOf(description);
}

NSDictionary Observer::namesAfter(const NSString& name) const {
  // One more tells whether there are more.
  auto all = registry_->describe(name.view(), limits_.namesOfOneAnswer + 1);
  const bool hasMore = all.size() > limits_.namesOfOneAnswer;
  if (hasMore) all.pop_back();
  NSMutableArray names = NSMutableArray::array();
  for (NameDescription& each : all) names.addObject(dictionaryOf(std::move(each)));
  return {{"names", names}, {"more", hasMore}};
}

NSDictionary Observer::name(const NSString& name) const {
  auto description = registry_->describe(name);
  return description ? dictionaryOf(*std::move(description)) : NSDictionary();
}

NSDictionary Observer::broker(std::size_t links) const {
  const auto read = [](const std::atomic<std::uint64_t>& tally) { return tally.load(std::memory_order_relaxed); };
  return {
      {"process", NSProcessInfo::processInfo().processIdentifier()},
      {"since", since_},
      {"names", registry_->count()},
      {"links", links},
      {"waiters", registry_->waiterCount()},
      {"standIns", standIns_->count()},
      {"descriptors", ledger_->descriptors()},
      {"registrations", read(tallies_.registrations)},
      {"drops", read(tallies_.drops)},
      {"lookUps", read(tallies_.lookUps)},
      {"found", read(tallies_.found)},
      {"limits", NSDictionary{{"names", limits_.names},
                              {"links", limits_.links},
                              {"waiters", limits_.waiters},
                              {"standIns", limits_.standIns},
                              {"descriptors", limits_.descriptors}}},
  };
}

}  // namespace velto
