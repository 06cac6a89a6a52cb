#pragma once

#include <atomic>
#include <cstdint>

#include <sys/epoll.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/Polling.h"

namespace velto::transport {

// The kernel's events, given out to threads one at a time. One thread leads: it looks for a moment, if that pays, and
// then sleeps until there is an event, with which it goes away. The others stand by behind a gate, which is open while
// nobody leads: then the next event wakes one of them. So who deals with an event keeps nobody from the next, who looks
// for one costs no other thread a wake-up, and handing the lead over is nothing but a word with the kernel.
//
// Thread-safe.
class Events {
 public:
  // What was watched with 0 is never told of by its number, but as a wake-up.
  static constexpr std::uint64_t kWakeUp = 0;

  // Makes what is missing of the kernel's objects. False, and errno, while it cannot be had: then nothing can be
  // watched or waited for.
  bool setUp();
  // Watches a descriptor, edge-triggered. False when the kernel refuses.
  bool add(int descriptor, std::uint32_t events, std::uint64_t number);
  bool change(int descriptor, std::uint32_t events, std::uint64_t number);
  void remove(int descriptor);

  // Waits for one event: 1, 0 when woken for none, or -1 and errno.
  int wait(epoll_event& event);
  // Whether all who wait will hear of the next event. False when the kernel has refused to open the gate: a thread that
  // comes to wait leads.
  bool isOpen() const noexcept { return !stuck_.load(std::memory_order_relaxed); }
  // One that waits returns. False when the kernel refuses.
  bool wakeOne();
  // An event has brought much at once. Who shares its processor with whoever sends so much only keeps it from becoming
  // more by looking for it: the next waits are slept through.
  void foundMuch() noexcept { plenty_.store(kPlenty, std::memory_order_relaxed); }

 private:
  int lead(epoll_event& event, bool isShut);
  int await(epoll_event& event);
  bool mayLook() noexcept;
  bool turnGate(bool open);

  Mutex setUpMutex_;
  std::atomic<bool> isSetUp_{false};
  // Written with setUpMutex_ held, until it is set up; then read by everybody.
  system::Descriptor events_;
  system::Descriptor wakeUp_;
  system::Descriptor gate_;
  bool watchesWakeUp_ VELTO_GUARDED_BY(setUpMutex_) = false;
  bool watchesEvents_ VELTO_GUARDED_BY(setUpMutex_) = false;

  std::atomic<bool> isLed_{false};
  std::atomic<bool> stuck_{false};
  // Waits for which what has come in plenty is taken to go on.
  static constexpr unsigned kPlenty = 16;
  std::atomic<unsigned> plenty_{0};
  // Of the thread that leads.
  Polling polling_;
};

}  // namespace velto::transport
