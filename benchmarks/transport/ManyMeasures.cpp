// Measures of many: connections, and whatever costs may grow with.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/transport/Measures.h"
#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Timing.h"

namespace velto::transport {
namespace {

// Connections, each of which has been used.
void growTo(std::vector<std::unique_ptr<Link>>& links, std::int64_t count, const std::string& address) {
  while (static_cast<std::int64_t>(links.size()) < count) {
    links.push_back(connect(address));
    checkedRoundTrip(*links.back(), 1);
  }
}

struct Taken {
  double count = 0;
  double seconds = 0;
};

// Round trips over one after the other.
Taken roundRobin(const std::vector<std::unique_ptr<Link>>& links, double seconds) {
  Taken taken;
  const Clock::time_point start = Clock::now();
  for (std::size_t index = 0; secondsSince(start) < seconds; index = (index + 1) % links.size(), ++taken.count) {
    checkedRoundTrip(*links[index], 1);
  }
  taken.seconds = secondsSince(start);
  return taken;
}

// Round trips from so many threads over one connection, per second.
double perSecondFrom(Link& link, int threads, double seconds) {
  std::atomic<std::int64_t> count = 0;
  const Clock::time_point start = Clock::now();
  {
    std::vector<std::jthread> running;
    for (int thread = 0; thread < threads; ++thread) {
      running.emplace_back([&] {
        for (; secondsSince(start) < seconds; ++count) link.roundTrip({.number = 1});
      });
    }
  }
  return static_cast<double>(count) / secondsSince(start);
}

}  // namespace

// Memory by the difference between a tenth of the connections and all of them.
Figures clients(const Arrangement& given) {
  constexpr std::chrono::milliseconds kRest{300};
  std::vector<std::unique_ptr<Link>> links;
  links.reserve(static_cast<std::size_t>(given.amount));
  const auto memories = [&](std::int64_t count) {
    growTo(links, count, given.address);
    std::this_thread::sleep_for(kRest);
    std::vector<Memory> found;
    for (const Watched& each : given.processes) found.push_back(memoryOf(each.process));
    return found;
  };
  const std::vector<Memory> few = memories(given.amount / 10);
  const std::vector<Memory> many = memories(given.amount);
  const auto more = static_cast<double>(given.amount - given.amount / 10);
  const Meter meter(given.processes);
  const Taken taken = roundRobin(links, given.seconds);
  Figures figures{{"per second", taken.count / taken.seconds}};
  meter.per(taken.count, figures);
  for (std::size_t index = 0; index < few.size(); ++index) {
    const std::string& name = given.processes[index].name;
    const auto add = [&](const char* what, double Memory::*part) {
      figures.emplace_back(std::string(what) + " of " + name, (many[index].*part - few[index].*part) / more);
    };
    add("Pss", &Memory::proportionalKiB);
    add("Rss", &Memory::residentKiB);
    add("anonymous", &Memory::anonymousKiB);
  }
  return figures;
}

// Microseconds per unit as the number of units grows.
Figures growth(const Arrangement& given) {
  Figures figures;
  const auto add = [&](const char* unit, std::int64_t number, double each) {
    figures.emplace_back(std::string(unit) + " " + std::to_string(number), each);
  };
  const auto link = connect(given.address);
  for (const int keys : {1, 10, 100, 1000, 10'000}) {
    link->roundTripOfKeys(keys);
    const Clock::time_point start = Clock::now();
    double count = 0;
    for (; secondsSince(start) < given.seconds; ++count) link->roundTripOfKeys(keys);
    add("keys", keys, secondsSince(start) / count / keys * 1e6);
  }
  for (const std::int64_t most : {1, 10, 100, 1000, 10'000, 60'000}) {
    const std::int64_t count = std::max<std::int64_t>(4 * most, 2000);
    add("outstanding", most, microseconds([&] { link->roundTrips(count, most); }) / static_cast<double>(count));
  }
  for (const int threads : {1, 10, 100}) {
    add("sending threads", threads, 1e6 / perSecondFrom(*link, threads, given.seconds));
  }
  std::vector<std::unique_ptr<Link>> links;
  for (const std::int64_t count : {1, 10, 100, 1000}) {
    growTo(links, count, given.address);
    const Taken taken = roundRobin(links, given.seconds);
    add("clients", count, taken.seconds / taken.count * 1e6);
  }
  return figures;
}

}  // namespace velto::transport
