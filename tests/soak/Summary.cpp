// The end of a soak, for people.

#include "tests/soak/Summary.h"

#include <cinttypes>
#include <cstdio>

#include "tests/soak/Explanations.h"

namespace velto::soak {

bool print(const Summary& summary, const SharedState& shared) {
  std::printf("%" PRIu64 " connections, %" PRIu64 " messages, %" PRIu64 " replies checked, %" PRIu64 " wrong\n",
              shared.counted(Counter::connections), shared.counted(Counter::messages),
              shared.counted(Counter::repliesChecked), shared.counted(Counter::wrongReplies));
  std::printf("killed: %" PRIu64 " clients, %" PRIu64 " listeners, %" PRIu64 " brokers; restarted: %" PRIu64
              "; stopped and continued: %" PRIu64 "\n",
              summary.clientKills, summary.listenerKills, summary.brokerKills, summary.restarts, summary.halts);
  std::printf("errors heard, all of them explained by a kill or a close but %" PRIu64 ":\n",
              shared.counted(Counter::unexplained));
  for (std::size_t index = static_cast<std::size_t>(Counter::daemonInterrupted); index < kCounters; ++index) {
    const auto counter = static_cast<Counter>(index);
    if (shared.counted(counter) > 0) std::printf("  %8" PRIu64 " %s\n", shared.counted(counter), nameOf(counter));
  }
  for (const auto& process : summary.longLived) {
    std::printf("%s: %s after the warm-up; %s at the end\n", process.who.c_str(), process.start.text().c_str(),
                process.end.text().c_str());
  }
  for (const std::string& failure : summary.failures) std::printf("FAILED: %s\n", failure.c_str());
  const bool isWell = summary.failures.empty() && shared.counted(Counter::wrongReplies) == 0 &&
                      shared.counted(Counter::unexplained) == 0;
  std::printf("%s\n", isWell ? "Everything was answered rightly, and nothing grew." : "The soak has FAILED.");
  std::fflush(stdout);
  return isWell;
}

}  // namespace velto::soak
