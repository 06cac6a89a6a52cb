// Two epoll descriptors. The first watches everything, and only the thread that leads asks it. The second is the gate:
// it watches the first, for one event at a time, and whoever stands by sleeps there. The kernel shuts it behind the
// thread that it lets pass; a thread that takes the lead otherwise shuts it, and who has got an event opens it. It may
// be found open while somebody leads, which costs a wake-up, but never shut while nobody does, or is about to open it.

#include "platform/xpc/transport/Events.h"

#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

epoll_event eventFor(std::uint32_t events, std::uint64_t number) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = number;
  return event;
}

}  // namespace

bool Events::setUp() {
  if (isSetUp_.load(std::memory_order_acquire)) return true;
  MutexLock lock(setUpMutex_);
  if (isSetUp_.load(std::memory_order_relaxed)) return true;
  auto& calls = system::systemCalls();
  if (!events_) events_ = system::Descriptor(calls.epollCreate());
  if (!gate_) gate_ = system::Descriptor(calls.epollCreate());
  if (!events_ || !gate_) return false;
  if (!wakeUp_) wakeUp_ = system::Descriptor(calls.eventCounter());
  if (!wakeUp_) return false;
  watchesWakeUp_ = watchesWakeUp_ || add(wakeUp_.get(), EPOLLIN, kWakeUp);
  if (!watchesWakeUp_) return false;
  auto event = eventFor(EPOLLIN | EPOLLONESHOT, 0);
  watchesEvents_ = watchesEvents_ || calls.epollControl(gate_.get(), EPOLL_CTL_ADD, events_.get(), event) == 0;
  if (!watchesEvents_) return false;
  isSetUp_.store(true, std::memory_order_release);
  return true;
}

bool Events::add(int descriptor, std::uint32_t events, std::uint64_t number) {
  auto event = eventFor(events | EPOLLET, number);
  return system::systemCalls().epollControl(events_.get(), EPOLL_CTL_ADD, descriptor, event) == 0;
}

bool Events::change(int descriptor, std::uint32_t events, std::uint64_t number) {
  auto event = eventFor(events | EPOLLET, number);
  return system::systemCalls().epollControl(events_.get(), EPOLL_CTL_MOD, descriptor, event) == 0;
}

void Events::remove(int descriptor) {
  epoll_event unused{};
  system::systemCalls().epollControl(events_.get(), EPOLL_CTL_DEL, descriptor, unused);
}

int Events::wait(epoll_event& event) {
  if (!isLed_.exchange(true)) return lead(event, false);
  epoll_event passed{};
  for (;;) {
    const int count = system::systemCalls().epollWait(gate_.get(), &passed, 1);
    if (count <= 0) return count;
    if (!isLed_.exchange(true)) return lead(event, true);
  }
}

int Events::lead(epoll_event& event, bool isShut) {
  if (!isShut) turnGate(false);
  const int count = await(event);
  isLed_ = false;
  stuck_.store(!turnGate(true), std::memory_order_relaxed);
  return count;
}

int Events::await(epoll_event& event) {
  auto& calls = system::systemCalls();
  for (bool looks = mayLook() && polling_.begin(); looks; looks = polling_.goOn()) {
    const int count = calls.epollLook(events_.get(), &event, 1);
    if (count > 0) polling_.hasPaid();
    if (count != 0) return count;
  }
  return calls.epollWait(events_.get(), &event, 1);
}

bool Events::mayLook() noexcept {
  const unsigned plenty = plenty_.load(std::memory_order_relaxed);
  if (plenty == 0) return true;
  plenty_.store(plenty - 1, std::memory_order_relaxed);
  return !polling_.sharesProcessor();
}

// Opened while there is an event, it lets one pass at once.
bool Events::turnGate(bool open) {
  auto event = eventFor(open ? EPOLLIN | EPOLLONESHOT : 0, 0);
  return system::systemCalls().epollControl(gate_.get(), EPOLL_CTL_MOD, events_.get(), event) == 0;
}

bool Events::wakeOne() {
  // Never read: edge-triggered, each write wakes one thread, and the counter has room for ever.
  const std::uint64_t one = 1;
  return !isSetUp_.load(std::memory_order_acquire) ||
         system::systemCalls().write(wakeUp_.get(), &one, sizeof(one)) >= 0;
}

}  // namespace velto::transport
