// veltoctl stats and top: figures of the broker, and of the processes that have listeners.
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "tools/veltoctl/BrokerLink.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/Listeners.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Processes.h"
#include "tools/veltoctl/Signals.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

// A name that is registered, and what its process tells of it.
struct Line {
  NameDescription name;
  std::optional<xpc::ListenerTraffic> traffic;
};

struct Snapshot {
  std::chrono::steady_clock::time_point time;
  NSDictionary broker;
  std::vector<Line> lines;
};

Snapshot take(BrokerLink& link) {
  Snapshot snapshot;
  snapshot.broker = link.describeBroker();
  const auto names = link.names();
  const Traffic traffic = allTraffic();
  for (const auto& each : names) {
    const auto found = traffic.find({each.name, each.state.process});
    snapshot.lines.push_back({each, found != traffic.end() ? std::optional(found->second) : std::nullopt});
  }
  snapshot.time = std::chrono::steady_clock::now();
  return snapshot;
}

std::int64_t numberIn(const NSDictionary& dictionary, const char* key) {
  return static_cast<std::int64_t>(dictionary[key].to<std::uint64_t>().value_or(0));
}

constexpr std::array<const char*, 5> kHoldings{"names", "links", "waiters", "standIns", "descriptors"};
constexpr std::array<const char*, 4> kTallies{"registrations", "drops", "lookUps", "found"};

NSDictionary shownBroker(const NSDictionary& broker) {
  const auto since = static_cast<std::uint64_t>(numberIn(broker, "since"));
  NSMutableDictionary result = NSMutableDictionary::dictionary();
  result["process"] = numberIn(broker, "process");
  result["since"] = NSDate::dateWithTimeIntervalSince1970(secondsSince1970At(since));
  NSMutableDictionary limits = NSMutableDictionary::dictionary();
  for (const char* const each : kHoldings) {
    result[each] = numberIn(broker, each);
    limits[each] = numberIn(broker["limits"].as<NSDictionary>(), each);
  }
  for (const char* const each : kTallies) result[each] = numberIn(broker, each);
  result["limits"] = limits;
  return result;
}

NSDictionary shownLine(const Line& line) {
  NSMutableDictionary result = NSMutableDictionary::dictionaryWithDictionary(shown(line.name));
  if (line.traffic) result["traffic"] = shown(*line.traffic);
  return result;
}

void printBroker(const NSDictionary& broker) {
  const auto since = static_cast<std::uint64_t>(numberIn(broker, "since"));
  const NSDictionary limits = broker["limits"].as<NSDictionary>();
  Table table({"", "", ""}, {false, true, false});
  table.add(
      {"broker", std::to_string(numberIn(broker, "process")), "process, for " + durationText(secondsSince(since))});
  for (const char* const each : kHoldings) {
    table.add({each, std::to_string(numberIn(broker, each)), "of " + std::to_string(numberIn(limits, each))});
  }
  for (const char* const each : kTallies) table.add({each, std::to_string(numberIn(broker, each)), "so far"});
  for (const std::string& line : table.lines(false)) printLine(line);
}

std::vector<std::string> cellsOf(const Line& line) {
  const std::string process = line.name.state.process > 0 ? std::to_string(line.name.state.process) : "?";
  if (!line.traffic) return {harmless(line.name.name), process, "?", "?", "?", "?", "?", "?", "?"};
  const auto& traffic = *line.traffic;
  return {harmless(line.name.name),
          process,
          std::to_string(traffic.connections),
          std::to_string(traffic.messagesIn),
          std::to_string(traffic.messagesOut),
          std::to_string(traffic.bytesIn),
          std::to_string(traffic.bytesOut),
          std::to_string(traffic.undeliveredBytes),
          std::to_string(traffic.unsentBytes)};
}

const std::vector<std::string> kHeadings{"NAME",     "PROCESS",   "CLIENTS",     "IN",    "OUT",
                                         "BYTES IN", "BYTES OUT", "UNDELIVERED", "UNSENT"};
const std::vector<bool> kIsNumber{false, true, true, true, true, true, true, true, true};

int stats(const Context& context) {
  BrokerLink link;
  const Snapshot snapshot = take(link);
  if (context.json) {
    NSMutableArray names = NSMutableArray::array();
    for (const Line& each : snapshot.lines) names.addObject(shownLine(each));
    printJSON(NSDictionary{{"broker", shownBroker(snapshot.broker)}, {"names", names}});
    return 0;
  }
  printBroker(snapshot.broker);
  if (snapshot.lines.empty()) return 0;
  Table table(kHeadings, kIsNumber);
  for (const Line& each : snapshot.lines) table.add(cellsOf(each));
  printLine("");
  for (const std::string& line : table.lines(true)) printLine(line);
  return 0;
}

// What has gone over a listener's connections in a second.
struct Rates {
  double messagesIn = 0;
  double messagesOut = 0;
  double bytesIn = 0;
  double bytesOut = 0;

  double messages() const { return messagesIn + messagesOut; }
};

// None for a line that has just come.
std::optional<Rates> ratesOf(const Line& now, const Snapshot& then, double seconds) {
  const auto before = std::ranges::find_if(then.lines, [&now](const Line& each) {
    return each.name.name == now.name.name && each.name.state == now.name.state;
  });
  if (before == then.lines.end() || !before->traffic || !now.traffic || seconds <= 0) return std::nullopt;
  const auto rate = [seconds](std::uint64_t later, std::uint64_t earlier) {
    return later > earlier ? static_cast<double>(later - earlier) / seconds : 0.0;
  };
  return Rates{rate(now.traffic->messagesIn, before->traffic->messagesIn),
               rate(now.traffic->messagesOut, before->traffic->messagesOut),
               rate(now.traffic->bytesIn, before->traffic->bytesIn),
               rate(now.traffic->bytesOut, before->traffic->bytesOut)};
}

void printRatesAsJSON(const Snapshot& now, const Snapshot& then) {
  const double seconds = std::chrono::duration<double>(now.time - then.time).count();
  NSMutableArray names = NSMutableArray::array();
  for (const Line& each : now.lines) {
    NSMutableDictionary line = NSMutableDictionary::dictionaryWithDictionary(shownLine(each));
    if (const auto rates = ratesOf(each, then, seconds)) {
      line["perSecond"] = NSDictionary{{"messagesIn", rates->messagesIn},
                                       {"messagesOut", rates->messagesOut},
                                       {"bytesIn", rates->bytesIn},
                                       {"bytesOut", rates->bytesOut}};
    }
    names.addObject(line);
  }
  printJSON(NSDictionary{{"time", NSDate::date()}, {"broker", shownBroker(now.broker)}, {"names", names}});
}

// A screen, or, where there is no terminal, one block below the other.
bool printRates(const Snapshot& now, const Snapshot& then, bool isScreen) {
  const double seconds = std::chrono::duration<double>(now.time - then.time).count();
  std::vector<std::pair<double, std::vector<std::string>>> rows;
  for (const Line& each : now.lines) {
    auto cells = cellsOf(each);
    const auto rates = ratesOf(each, then, seconds);
    if (rates) {
      cells[3] = countText(rates->messagesIn);
      cells[4] = countText(rates->messagesOut);
      cells[5] = bytesText(rates->bytesIn);
      cells[6] = bytesText(rates->bytesOut);
      cells[7] = bytesText(static_cast<double>(each.traffic->undeliveredBytes));
      cells[8] = bytesText(static_cast<double>(each.traffic->unsentBytes));
    } else {
      for (std::size_t cell = 3; cell < 7; ++cell) cells[cell] = "-";
    }
    rows.emplace_back(rates ? rates->messages() : -1, std::move(cells));
  }
  std::ranges::stable_sort(rows, std::greater<>(), [](const auto& row) { return row.first; });
  Table table({"NAME", "PROCESS", "CLIENTS", "IN/s", "OUT/s", "BYTES IN/s", "BYTES OUT/s", "UNDELIVERED", "UNSENT"},
              kIsNumber);
  for (auto& [messages, cells] : rows) table.add(std::move(cells));
  const NSDictionary& broker = now.broker;
  std::vector<std::string> lines{
      timeText(secondsSince1970At(static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::nanoseconds>(now.time.time_since_epoch()).count()))) +
      "  broker " + std::to_string(numberIn(broker, "process")) + ": " + std::to_string(numberIn(broker, "names")) +
      " names, " + std::to_string(numberIn(broker, "links")) + " links, " +
      std::to_string(numberIn(broker, "waiters")) + " waiters, " + std::to_string(numberIn(broker, "lookUps")) +
      " look-ups"};
  for (std::string& line : table.lines(true)) lines.push_back(std::move(line));
  if (!isScreen) lines.emplace_back();
  if (isScreen && lines.size() >= rowsOf(STDOUT_FILENO)) lines.resize(rowsOf(STDOUT_FILENO) - 1);
  std::string text = isScreen ? "\033[H" : "";
  for (std::size_t each = 0; each < lines.size(); ++each) {
    text += lines[each] + (isScreen ? "\033[K" : "") + (each + 1 < lines.size() ? "\n" : "");
  }
  return printLine(text + (isScreen ? "\n\033[J\033[A" : ""));
}

struct Wishes {
  double interval = 1;
  std::uint64_t count = 0;
};

int top(const Context& context, const Wishes& wishes) {
  Signals signals;
  BrokerLink link;
  const bool isScreen = isTerminal(STDOUT_FILENO) && !context.json;
  const auto pause =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(wishes.interval));
  if (isScreen) printLine("\033[?1049h\033[?25l\033[2J");
  std::exception_ptr failure;
  try {
    Snapshot then = take(link);
    for (std::uint64_t shownSoFar = 0; wishes.count == 0 || shownSoFar < wishes.count; ++shownSoFar) {
      if (signals.wait(pause)) break;
      Snapshot now = take(link);
      bool isRead = true;
      if (context.json) {
        printRatesAsJSON(now, then);
      } else {
        isRead = printRates(now, then, isScreen);
      }
      if (!isRead) break;
      then = std::move(now);
    }
  } catch (...) {
    failure = std::current_exception();
  }
  if (isScreen) printLine("\033[?25h\033[?1049l");
  if (failure) std::rethrow_exception(failure);
  return 0;
}

}  // namespace

void addStats(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("stats", "Tells what the broker and the listeners have done and hold");
  command->callback([&context] { context.chosen = [&context] { return stats(context); }; });
}

void addTop(CLI::App& app, Context& context) {
  auto* const command =
      app.add_subcommand("top", "Shows names, clients, messages and bytes a second, and queues, again and again");
  const auto wishes = std::make_shared<Wishes>();
  command->add_option("--interval", wishes->interval, "So long between two looks")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.05, 1e6))
      ->capture_default_str();
  command->add_option("--count", wishes->count, "Ends after so many looks")->type_name("NUMBER");
  command->callback([&context, wishes] { context.chosen = [&context, wishes] { return top(context, *wishes); }; });
}

}  // namespace velto::ctl
