// Each measure is written once, for every transport.
#include "benchmarks/transport/Measures.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Timing.h"

namespace velto::transport {
namespace {

constexpr std::chrono::seconds kPatience{20};

// At this part of all, 0 to 1. Sorts.
double quantile(std::vector<double>& values, double part) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(part * static_cast<double>(values.size())))];
}

Figures roundTrip(const Arrangement& given) {
  const auto link = connect(given.address);
  warmUp(*link);
  std::vector<double> times;
  const Meter meter(given.processes);
  const Clock::time_point start = Clock::now();
  for (std::int64_t number = 1; secondsSince(start) < given.seconds; ++number) {
    times.push_back(microseconds([&] { checkedRoundTrip(*link, number); }));
  }
  Figures figures;
  meter.per(static_cast<double>(times.size()), figures);
  for (const auto& [name, part] : {std::pair("p50", 0.5), {"p90", 0.9}, {"p99", 0.99}, {"max", 1.0}}) {
    figures.emplace_back(name, quantile(times, part));
  }
  return figures;
}

// Says when it is ready, and works when it is told, so that somebody can count the system calls in between.
Figures stepwise(const Arrangement& given) {
  const auto link = connect(given.address);
  warmUp(*link);
  std::string line;
  std::cout << "ready" << std::endl;
  std::getline(std::cin, line);
  for (std::int64_t number = 1; number <= given.amount; ++number) checkedRoundTrip(*link, number);
  std::cout << "done" << std::endl;
  std::getline(std::cin, line);
  return {};
}

// Until the server says that so many messages have come.
void awaitArrival(Link& link, std::int64_t count) {
  const Clock::time_point start = Clock::now();
  while (link.roundTrip({.number = kHowManyCame}) < static_cast<double>(count)) {
    if (Clock::now() - start > kPatience) throw std::runtime_error("messages have been lost");
  }
}

Figures flood(const Arrangement& given) {
  constexpr std::int64_t kBetweenLooks = 1000;
  const auto link = connect(given.address);
  warmUp(*link);
  auto before = static_cast<std::int64_t>(link->roundTrip({.number = kHowManyCame}));
  const Meter meter(given.processes);
  const Clock::time_point start = Clock::now();
  std::int64_t sent = 0;
  while (secondsSince(start) < given.seconds) {
    for (std::int64_t count = 0; count < kBetweenLooks; ++count) link->send({.number = kOneWay});
    sent += kBetweenLooks;
  }
  awaitArrival(*link, before + sent);
  const double seconds = secondsSince(start);
  Figures figures{{"per second", static_cast<double>(sent) / seconds}};
  meter.per(static_cast<double>(sent), figures);
  return figures;
}

Figures outstanding(const Arrangement& given) {
  const auto link = connect(given.address);
  warmUp(*link);
  // Whole windows, many of them, so that their beginning and end do not count.
  const std::int64_t step = given.amount * 16;
  const Meter meter(given.processes);
  const Clock::time_point start = Clock::now();
  std::int64_t count = 0;
  for (std::int64_t next = step; secondsSince(start) < given.seconds; next = std::min(next * 2, 256 * step)) {
    link->roundTrips(next, given.amount);
    count += next;
  }
  const double seconds = secondsSince(start);
  Figures figures{{"per second", static_cast<double>(count) / seconds}};
  meter.per(static_cast<double>(count), figures);
  return figures;
}

// `carry` makes the round trip of a request.
template <class Carry>
Figures dataCarried(const Arrangement& given, std::span<const std::uint8_t> bytes, const Carry& carry) {
  const std::size_t size = bytes.size();
  const auto link = connect(given.address);
  warmUp(*link);
  const auto transfer = [&] {
    if (carry(*link, {.number = kAcknowledge, .data = bytes}) != static_cast<double>(size)) {
      throw std::runtime_error("data has been lost");
    }
  };
  transfer();
  const Meter meter(given.processes);
  const Clock::time_point start = Clock::now();
  std::int64_t count = 0;
  do {
    transfer();
    ++count;
  } while (secondsSince(start) < given.seconds);
  const double mebibytes = static_cast<double>(count) * static_cast<double>(size) / (1 << 20);
  Figures figures{{"MiB per second", mebibytes / secondsSince(start)}};
  meter.per(mebibytes, figures);
  return figures;
}

Figures data(const Arrangement& given) {
  const std::vector<std::uint8_t> bytes(static_cast<std::size_t>(given.amount), 7);
  return dataCarried(given, bytes, [](Link& link, const Request& request) { return link.roundTrip(request); });
}

// Sealed memory with bytes in it, and mapped.
class SealedMemory {
 public:
  explicit SealedMemory(const std::vector<std::uint8_t>& bytes)
      : descriptor_(::memfd_create("benchmark", MFD_CLOEXEC | MFD_ALLOW_SEALING)), size_(bytes.size()) {
    const bool isWritten = ::write(descriptor_, bytes.data(), size_) == static_cast<ssize_t>(size_);
    const int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    if (!isWritten || ::fcntl(descriptor_, F_ADD_SEALS, seals) != 0) throw std::runtime_error("there is no memory");
    address_ = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED | MAP_POPULATE, descriptor_, 0);
    if (address_ == MAP_FAILED) throw std::runtime_error("memory cannot be mapped");
  }
  ~SealedMemory() {
    ::munmap(address_, size_);
    ::close(descriptor_);
  }
  SealedMemory(const SealedMemory&) = delete;
  SealedMemory& operator=(const SealedMemory&) = delete;

  int descriptor() const noexcept { return descriptor_; }
  std::span<const std::uint8_t> bytes() const noexcept { return {static_cast<const std::uint8_t*>(address_), size_}; }

 private:
  const int descriptor_;
  const std::size_t size_;
  void* address_ = nullptr;
};

Figures sharedData(const Arrangement& given) {
  const SealedMemory memory(std::vector<std::uint8_t>(static_cast<std::size_t>(given.amount), 7));
  return dataCarried(given, memory.bytes(), [&memory](Link& link, const Request& request) {
    return link.roundTripOfMemory(memory.descriptor(), request);
  });
}

Figures life(const Arrangement& given) {
  std::map<std::string, std::vector<double>> times;
  const Meter meter(given.processes);
  const Clock::time_point start = Clock::now();
  double lives = 0;
  for (; secondsSince(start) < given.seconds; ++lives) {
    const Clock::time_point birth = Clock::now();
    std::unique_ptr<Link> link;
    times["ready"].push_back(microseconds([&] { link = connect(given.address); }));
    times["first reply"].push_back(microseconds([&] { checkedRoundTrip(*link, 1); }));
    times["close"].push_back(microseconds([&] { link.reset(); }));
    times["whole"].push_back(secondsSince(birth) * 1e6);
  }
  Figures figures;
  for (auto& [name, each] : times) figures.emplace_back(name, quantile(each, 0.5));
  meter.per(lives, figures);
  return figures;
}

}  // namespace

Figures measure(const std::string& name, const Arrangement& arrangement) {
  static const std::map<std::string, Figures (*)(const Arrangement&)> measures{
      {"round trip", roundTrip},    {"stepwise", stepwise}, {"flood", flood},
      {"outstanding", outstanding}, {"data", data},         {"life", life},
      {"shared data", sharedData},  {"clients", clients},   {"growth", growth}};
  const auto found = measures.find(name);
  if (found == measures.end()) throw std::invalid_argument("there is no measure of that name");
  return found->second(arrangement);
}

}  // namespace velto::transport
