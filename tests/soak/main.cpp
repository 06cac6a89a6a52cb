// velto_soak run: random work of many processes, with kills and restarts, every reply checked; fails on a wrong reply,
// a process that hangs, an error that nothing explains, and growth. velto_soak cycles COUNT: connections made and
// closed one after the other. Both in a runtime directory of their own.

#include <cstdio>
#include <random>

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include "platform/logging/VeltoLogging.h"
#include "tests/soak/ClientProcess.h"
#include "tests/soak/Cycles.h"
#include "tests/soak/ListenerProcess.h"
#include "tests/soak/Programs.h"
#include "tests/soak/Supervisor.h"
#include <CLI/CLI.hpp>

namespace {

volatile bool interrupted = false;

// What the helpers of the tests found wrong counts too.
bool isWell(bool result) {
  return result && !::testing::UnitTest::GetInstance()->Failed();
}

bool soak(velto::soak::SoakOptions options) {
  if (options.seed == 0) options.seed = std::random_device()();
  std::printf("seed %llu, %lld s\n", static_cast<unsigned long long>(options.seed),
              static_cast<long long>(options.duration.count()));
  std::fflush(stdout);
  ::signal(SIGINT, [](int) { interrupted = true; });
  velto::soak::Supervisor supervisor(options);
  return supervisor.run(interrupted);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  CLI::App program("Hours of random work, with kills and restarts.", "velto_soak");
  program.require_subcommand(1);
  velto::soak::SoakOptions options;
  std::int64_t seconds = 60;
  auto* const run = program.add_subcommand("run", "Random work of many processes");
  run->add_option("--seconds", seconds, "How long, roughly");
  run->add_option("--seed", options.seed, "To repeat a run; 0 takes any");
  run->add_option("--listeners", options.listeners)->check(CLI::Range(1u, 8u));
  run->add_option("--clients", options.clients)->check(CLI::Range(1u, 16u));
  std::size_t count = 0;
  auto* const cycles = program.add_subcommand("cycles", "Connect, send, close, again and again");
  cycles->add_option("count", count)->required();

  // The roles that it starts itself in; no group shows them.
  std::size_t number = 0;
  int memory = -1;
  std::uint64_t seed = 0;
  std::string path;
  auto* const listener = program.add_subcommand("listener", "")->group("");
  auto* const client = program.add_subcommand("client", "")->group("");
  for (auto* const role : {listener, client}) {
    role->add_option("number", number)->required();
    role->add_option("memory", memory)->required();
    role->add_option("seed", seed)->required();
  }
  auto* const cycleListener = program.add_subcommand("cycle-listener", "")->group("");
  auto* const other = program.add_subcommand("program", "")->group("");
  other->add_option("path", path)->required();
  CLI11_PARSE(program, argumentCount, arguments);

  // Errors are expected here, and judged by what the delegates hear.
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
  // Fewer heaps, so that memory says more.
  ::setenv("MALLOC_ARENA_MAX", "2", 1);
  options.duration = std::chrono::seconds(seconds);
  if (run->parsed()) return isWell(soak(options)) ? 0 : 1;
  if (cycles->parsed()) return isWell(velto::soak::runCycles(count)) ? 0 : 1;
  velto::soak::becomeChild();
  if (other->parsed()) velto::soak::becomeProgram(path);
  if (cycleListener->parsed()) return velto::soak::serveCycles();
  velto::soak::SharedState& shared = velto::soak::mapSharedState(memory);
  return listener->parsed() ? velto::soak::runListener(shared, number, seed)
                            : velto::soak::runClient(shared, number, seed);
}
