// Read from /proc; the time of the processor from the process's clock, which is exact to a microsecond.
#include "benchmarks/transport/Watch.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace velto::transport {
namespace {

// Adds up the lines of a file of /proc that begin with the name.
std::int64_t sumOf(const std::filesystem::path& file, const std::string& name) {
  std::ifstream lines(file);
  std::int64_t sum = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name)) sum += std::stoll(line.substr(name.size()));
  }
  return sum;
}

}  // namespace

Usage usageOf(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("a process has ended");
  }
  Usage usage;
  usage.cpuSeconds = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    ++usage.threads;
    usage.contextSwitches += sumOf(task.path() / "status", "voluntary_ctxt_switches:");
    usage.contextSwitches += sumOf(task.path() / "status", "nonvoluntary_ctxt_switches:");
  }
  return usage;
}

Memory memoryOf(pid_t process) {
  const std::filesystem::path file = "/proc/" + std::to_string(process) + "/smaps_rollup";
  return {.proportionalKiB = static_cast<double>(sumOf(file, "Pss:")),
          .residentKiB = static_cast<double>(sumOf(file, "Rss:")),
          .anonymousKiB = static_cast<double>(sumOf(file, "Anonymous:"))};
}

Meter::Meter(const std::vector<Watched>& processes) : processes_(processes), before_(usages()) {}

std::vector<Usage> Meter::usages() const {
  std::vector<Usage> found;
  for (const Watched& each : processes_) found.push_back(usageOf(each.process));
  return found;
}

void Meter::per(double units, Figures& figures) const {
  const std::vector<Usage> after = usages();
  double cpu = 0, switches = 0;
  for (std::size_t index = 0; index < after.size(); ++index) {
    cpu += after[index].cpuSeconds - before_[index].cpuSeconds;
    switches += static_cast<double>(after[index].contextSwitches - before_[index].contextSwitches);
  }
  figures.emplace_back("cpu", cpu / units * 1e6);
  figures.emplace_back("switches", switches / units);
  for (std::size_t index = 0; index < after.size(); ++index) {
    const std::string& name = processes_[index].name;
    figures.emplace_back("cpu of " + name, (after[index].cpuSeconds - before_[index].cpuSeconds) / units * 1e6);
    figures.emplace_back("threads of " + name, static_cast<double>(after[index].threads));
  }
}

}  // namespace velto::transport
