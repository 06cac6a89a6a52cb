// Work, then rest, then work again: at rest no connection is open, so that what a process still holds then is its own.

#include "tests/soak/Supervisor.h"

#include <cstdio>
#include <thread>

#include <signal.h>

#include "tests/soak/Programs.h"
#include "tests/support/Waiting.h"

namespace velto::soak {

namespace {

constexpr std::chrono::milliseconds kLook{20};
constexpr std::chrono::seconds kLongestRound{8};
// Nothing takes that long but what will never end.
constexpr std::chrono::seconds kHung{60};

}  // namespace

Supervisor::Supervisor(const SoakOptions& options)
    : options_(options), memory_(makeSharedState()), shared_(mapSharedState(memory_)), random_(options.seed) {
  shared_.listenerCount = options.listeners;
}

bool Supervisor::run(const volatile bool& interrupted) {
  interrupted_ = &interrupted;
  const auto end = Clock::now() + options_.duration;
  broker_ = startBroker();
  shared_.brokerRuns = true;
  for (std::size_t number = 0; number < options_.listeners; ++number) startListener(number);
  for (std::size_t number = 0; number < options_.clients; ++number) startClient(number);
  // What the first work brings for good: threads, memory for messages of every size.
  work(options_.duration / 5, false);
  rest();
  takeCensus();
  while (Clock::now() < end && !isOver()) {
    work(std::min<Clock::duration>(end - Clock::now(), kLongestRound), true);
    rest();
    takeCensus();
  }
  stopAll();
  return print(summary_, shared_);
}

void Supervisor::startListener(std::size_t number) {
  listeners_.resize(std::max(listeners_.size(), number + 1));
  listeners_[number] =
      startSelf({"listener", std::to_string(number), std::to_string(memory_), std::to_string(random_())});
  shared_.listeners[number].runs = true;
}

void Supervisor::startClient(std::size_t number) {
  clients_.resize(std::max(clients_.size(), number + 1));
  clients_[number] = startSelf({"client", std::to_string(number), std::to_string(memory_), std::to_string(random_())});
}

void Supervisor::work(Clock::duration time, bool kills) {
  ++shared_.round;
  shared_.phase = Phase::work;
  const auto end = Clock::now() + time;
  auto next = Clock::now();
  while (Clock::now() < end && !isOver()) {
    std::this_thread::sleep_for(kLook);
    watch();
    if (!kills || Clock::now() < next) continue;
    disturb();
    next = Clock::now() + std::chrono::milliseconds(20 + below(random_, 200));
  }
}

void Supervisor::disturb() {
  const std::size_t choice = below(random_, 100);
  if (choice < 40) return killClient();
  if (choice < 70) return killListener();
  if (choice < 93) return halt();
  killBroker();
}

void Supervisor::killClient() {
  if (clients_.size() < 2) return;
  const std::size_t number = 1 + below(random_, clients_.size() - 1);
  ++shared_.clientKills;
  clients_[number]->signal(SIGKILL);
  clients_[number]->wait();
  ++summary_.clientKills;
  startClient(number);
  ++summary_.restarts;
}

void Supervisor::killListener() {
  if (listeners_.size() < 2) return;
  const std::size_t number = 1 + below(random_, listeners_.size() - 1);
  shared_.listeners[number].runs = false;
  ++shared_.listeners[number].kills;
  listeners_[number]->signal(SIGKILL);
  listeners_[number]->wait();
  shared_.listeners[number].registeredWith = 0;
  ++summary_.listenerKills;
  startListener(number);
  ++summary_.restarts;
}

void Supervisor::killBroker() {
  shared_.brokerRuns = false;
  ++shared_.brokerKills;
  broker_->signal(SIGKILL);
  broker_->wait();
  ++summary_.brokerKills;
  std::this_thread::sleep_for(std::chrono::milliseconds(below(random_, 100)));
  broker_ = startBroker();
  shared_.brokerRuns = true;
  ++summary_.restarts;
}

// Stops some process for a moment: nobody must take that for its end.
void Supervisor::halt() {
  const std::size_t number = below(random_, listeners_.size() + clients_.size() + 1);
  testing::ChildProcess& halted = number < listeners_.size()                     ? *listeners_[number]
                                  : number < listeners_.size() + clients_.size() ? *clients_[number - listeners_.size()]
                                                                                 : *broker_;
  halted.signal(SIGSTOP);
  std::this_thread::sleep_for(std::chrono::milliseconds(below(random_, 100)));
  halted.signal(SIGCONT);
  ++summary_.halts;
}

void Supervisor::rest() {
  ++shared_.round;
  shared_.phase = Phase::rest;
  const auto end = Clock::now() + kHung;
  while (!allRest() && summary_.failures.empty()) {
    std::this_thread::sleep_for(kLook);
    watch();
    if (Clock::now() > end) fail("somebody does not come to rest: a call never returned, or a connection never ended");
  }
}

bool Supervisor::allRest() const {
  const std::uint64_t round = shared_.round;
  for (std::size_t number = 0; number < listeners_.size(); ++number) {
    if (shared_.listeners[number].worker.restsFor != round) return false;
  }
  for (std::size_t number = 0; number < clients_.size(); ++number) {
    for (const WorkerSlot& slot : shared_.clients[number]) {
      if (slot.restsFor != round) return false;
    }
  }
  return true;
}

void Supervisor::takeCensus() {
  if (!summary_.failures.empty()) return;
  compare("listener 0", listeners_[0]->processID());
  compare("client 0", clients_[0]->processID());
  compare("broker " + std::to_string(shared_.currentBroker()), broker_->processID());
}

void Supervisor::compare(const std::string& who, pid_t process) {
  const auto known = counted_.find(process);
  if (known == counted_.end()) {
    const ProcessCensus start = ProcessCensus::settled(process);
    counted_[process] = summary_.longLived.size();
    summary_.longLived.push_back({who, start, start});
    return;
  }
  Summary::LongLived& entry = summary_.longLived[known->second];
  entry.end = censusComparedWith(entry.start, process);
  const std::string growth = growthSince(entry.start, entry.end, kAllowedGrowthBytes);
  if (!growth.empty()) fail(who + " has grown: " + growth);
}

void Supervisor::stopAll() {
  shared_.phase = Phase::stop;
  if (!summary_.failures.empty()) return;
  for (const auto& client : clients_) {
    if (client->wait() != 0) fail("a client did not end well");
  }
  for (const auto& listener : listeners_) {
    if (listener->wait() != 0) fail("a listener did not end well");
  }
  broker_->signal(SIGTERM);
  if (broker_->wait() != 0) fail("the broker did not end well");
  // A listener may hear of a killed client long after the kill; but of no more clients than were killed. A worker has
  // one connection, and perhaps one more that is saying goodbye.
  if (shared_.counted(Counter::connectionInterrupted) > 2 * kWorkersOfOneClient * summary_.clientKills) {
    fail("more clients vanished than were killed");
  }
}

// Nobody may end unless killed, and nobody may stand still.
void Supervisor::watch() {
  expectAlive(*broker_, "the broker");
  for (std::size_t number = 0; number < listeners_.size(); ++number) {
    const std::string who = "listener " + std::to_string(number);
    expectAlive(*listeners_[number], who);
    watchWorker(shared_.listeners[number].worker, who);
  }
  for (std::size_t number = 0; number < clients_.size(); ++number) {
    const std::string who = "client " + std::to_string(number);
    expectAlive(*clients_[number], who);
    for (std::size_t worker = 0; worker < kWorkersOfOneClient; ++worker) {
      watchWorker(shared_.clients[number][worker], who + ", worker " + std::to_string(worker));
    }
  }
}

void Supervisor::watchWorker(const WorkerSlot& slot, const std::string& who) {
  const auto now = Clock::now();
  auto& last = progress_.try_emplace(who, LastProgress{slot.progress, now}).first->second;
  if (last.value != slot.progress) {
    last = {slot.progress, now};
  } else if (now - last.since > kHung) {
    fail(who + " hangs");
  }
}

void Supervisor::expectAlive(const testing::ChildProcess& process, const std::string& who) {
  if (hasEnded(process)) fail(who + " has ended by itself");
}

void Supervisor::fail(const std::string& what) {
  std::fprintf(stderr, "FAILED: %s\n", what.c_str());
  summary_.failures.push_back(what);
}

}  // namespace velto::soak
