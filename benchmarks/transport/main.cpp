// Of every transport's program: the server, or the client that measures and prints figures as JSON.
#include <cstdio>
#include <exception>
#include <string>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "benchmarks/transport/Measures.h"
#include "benchmarks/transport/Peer.h"
#include <CLI/CLI.hpp>

namespace {

using velto::transport::Arrangement;
using velto::transport::Figures;

// A thousand connections are more than the usual soft limit.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void print(const Figures& figures) {
  const char* before = "{";
  for (const auto& [name, value] : figures) {
    std::printf("%s\"%s\": %.4f", before, name.c_str(), value);
    before = ", ";
  }
  std::puts(figures.empty() ? "{}" : "}");
}

void sayReady() {
  std::puts("ready");
  std::fflush(stdout);
}

Arrangement withWatched(Arrangement arrangement, const std::vector<std::string>& watched) {
  arrangement.processes.push_back({.name = "client", .process = getpid()});
  for (const std::string& each : watched) {
    const std::size_t sign = each.find('=');
    arrangement.processes.push_back({.name = each.substr(0, sign), .process = std::stoi(each.substr(sign + 1))});
  }
  return arrangement;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  CLI::App options("One end of a transport that is measured.");
  options.require_subcommand(1);
  Arrangement arrangement;
  CLI::App* const server = options.add_subcommand("serve", "Serve until it is killed");
  server->add_option("address", arrangement.address)->required();
  CLI::App* const client = options.add_subcommand("measure", "Measure, and print figures");
  std::string measure;
  std::vector<std::string> watched;
  client->add_option("measure", measure)->required();
  client->add_option("address", arrangement.address)->required();
  client->add_option("--watch", watched, "NAME=PROCESS: another process that has a part in the work");
  client->add_option("--seconds", arrangement.seconds);
  client->add_option("--amount", arrangement.amount);
  CLI11_PARSE(options, argumentCount, arguments);

  signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();
  try {
    if (server->parsed()) velto::transport::serve(arrangement.address, sayReady);
    if (client->parsed()) print(velto::transport::measure(measure, withWatched(arrangement, watched)));
  } catch (const std::exception& what) {
    std::fprintf(stderr, "%s\n", what.what());
    return 1;
  }
  return 0;
}
