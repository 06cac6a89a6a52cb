// A channel is entered once for many frames, with its timer, and leaves when the timer finds nothing.

#include "platform/xpc/transport/Gathering.h"

#include <atomic>
#include <cstdlib>

#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/transport/Channel.h"

namespace velto::transport {

namespace {

std::atomic<bool> exits{false};

}  // namespace

Gathering::Gathering() {
  static const bool registered = std::atexit(flushAtExit) == 0;
  if (!registered) exits = true;
}

bool Gathering::isAllowed() noexcept {
  return !exits.load(std::memory_order_relaxed);
}

void Gathering::add(Channel& channel) {
  MutexLock lock(mutex_);
  // One that is gone may have lain where this one lies.
  std::erase_if(entries_, [](const Entry& each) { return each.alive.expired(); });
  for (const Entry& each : entries_) {
    if (each.channel == &channel) return;
  }
  entries_.push_back({&channel, channel.weak_from_this()});
}

void Gathering::remove(const Channel& channel) noexcept {
  MutexLock lock(mutex_);
  std::erase_if(entries_, [&channel](const Entry& each) { return each.channel == &channel; });
}

void Gathering::flushAtExit() {
  exits = true;
  system::perProcess<Gathering>().flushAll();
}

void Gathering::flushAll() {
  std::vector<Entry> entries;
  {
    MutexLock lock(mutex_);
    entries.swap(entries_);
  }
  for (const Entry& each : entries) {
    if (const auto channel = each.alive.lock()) channel->flush();
  }
}

}  // namespace velto::transport
