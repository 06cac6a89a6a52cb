#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "daemon/Ledger.h"
#include "daemon/Registry.h"
#include "daemon/StandIns.h"
#include "platform/foundation/NSDictionary.h"

namespace velto {

// What has been asked of a broker so far.
struct Tallies {
  std::atomic<std::uint64_t> registrations{0};
  std::atomic<std::uint64_t> drops{0};
  std::atomic<std::uint64_t> lookUps{0};
  std::atomic<std::uint64_t> found{0};

  static void count(std::atomic<std::uint64_t>& tally) { tally.fetch_add(1, std::memory_order_relaxed); }
};

// What a broker tells tools about itself, as dictionaries. Thread-safe.
class Observer {
 public:
  Observer(const BrokerLimits& limits, std::shared_ptr<const Registry> registry, std::shared_ptr<const Ledger> ledger,
           std::shared_ptr<const StandIns> standIns);

  Tallies& tallies() noexcept { return tallies_; }
  NSDictionary namesAfter(const NSString& name) const;
  // nil when nothing stands under it.
  NSDictionary name(const NSString& name) const;
  NSDictionary broker(std::size_t links) const;

 private:
  NSDictionary dictionaryOf(NameDescription description) const;

  const BrokerLimits limits_;
  const std::shared_ptr<const Registry> registry_;
  const std::shared_ptr<const Ledger> ledger_;
  const std::shared_ptr<const StandIns> standIns_;
  const std::uint64_t since_;
  Tallies tallies_;
};

}  // namespace velto
