// Read from /proc, of this process and of others.

#include "tests/soak/ProcessCensus.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <unistd.h>

#include "platform/xpc/contract/Limits.h"
#include "tests/support/MemoryTells.h"
#include "tests/support/Waiting.h"

namespace velto::soak {

namespace {

constexpr int kLooks = 30;
constexpr std::chrono::milliseconds kBetweenLooks{10};

std::size_t entriesOf(const std::string& directory) {
  std::error_code ignored;
  std::filesystem::directory_iterator walk(directory, ignored);
  return static_cast<std::size_t>(std::distance(begin(walk), end(walk)));
}

bool holdsTheSame(const ProcessCensus& left, const ProcessCensus& right) {
  return left.descriptors == right.descriptors && left.threads == right.threads;
}

// Between one thread and as many as its limit says wait in every process at rest: how many is chance.
bool holdsNoMore(const ProcessCensus& end, const ProcessCensus& start) {
  return end.descriptors == start.descriptors && end.threads < start.threads + limits::kSpareWorkers;
}

}  // namespace

ProcessCensus ProcessCensus::of(pid_t process) {
  const std::string directory = "/proc/" + std::to_string(process);
  ProcessCensus census;
  // Of this process, the walk's own descriptor is one of them.
  census.descriptors = entriesOf(directory + "/fd") - (process == ::getpid() ? 1 : 0);
  census.threads = entriesOf(directory + "/task");
  std::ifstream pages(directory + "/statm");
  std::size_t total = 0;
  pages >> total >> census.residentBytes;
  census.residentBytes *= static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return census;
}

ProcessCensus ProcessCensus::settled(pid_t process) {
  ProcessCensus last = of(process);
  int unchanged = 0;
  testing::eventually([&] {
    std::this_thread::sleep_for(kBetweenLooks);
    const ProcessCensus now = of(process);
    unchanged = holdsTheSame(now, last) ? unchanged + 1 : 0;
    last = now;
    return unchanged >= kLooks;
  });
  return last;
}

std::string ProcessCensus::text() const {
  return std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
         std::to_string(residentBytes >> 10) + " KiB";
}

ProcessCensus censusComparedWith(const ProcessCensus& start, pid_t process) {
  testing::eventually([&] { return holdsNoMore(ProcessCensus::of(process), start); });
  return ProcessCensus::of(process);
}

std::string growthSince(const ProcessCensus& start, const ProcessCensus& end, std::size_t allowedGrowthBytes) {
  const bool memoryGrew = testing::kMemoryTells && end.residentBytes > start.residentBytes + allowedGrowthBytes;
  if (holdsNoMore(end, start) && !memoryGrew) return "";
  return "it had " + start.text() + ", and has " + end.text() + "; memory may grow by " +
         std::to_string(allowedGrowthBytes >> 10) + " KiB";
}

}  // namespace velto::soak
