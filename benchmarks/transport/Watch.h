#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace velto::transport {

// One process that has a part in the work.
struct Watched {
  std::string name;
  pid_t process = 0;
};

// What the kernel says of a process.
struct Usage {
  double cpuSeconds = 0;
  // Threads that have ended are not among those whose switches are counted.
  std::int64_t contextSwitches = 0;
  std::int64_t threads = 0;
};
Usage usageOf(pid_t process);

struct Memory {
  double proportionalKiB = 0;
  double residentKiB = 0;
  double anonymousKiB = 0;
};
Memory memoryOf(pid_t process);

// Figures by name, in the order in which they are printed. Times are in microseconds.
using Figures = std::vector<std::pair<std::string, double>>;

// What processes use from its making on. Borrows them.
class Meter {
 public:
  explicit Meter(const std::vector<Watched>& processes);

  // Adds what they have used per unit of work, all together and each, and how many threads they have.
  void per(double units, Figures& figures) const;

 private:
  std::vector<Usage> usages() const;

  const std::vector<Watched>& processes_;
  const std::vector<Usage> before_;
};

}  // namespace velto::transport
