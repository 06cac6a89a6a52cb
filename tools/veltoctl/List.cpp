// veltoctl list, info, wait: what the broker knows of names.
#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include <unistd.h>

#include "tools/veltoctl/BrokerLink.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/Listeners.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Processes.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

int list(const Context& context) {
  const auto names = BrokerLink().names();
  if (context.json) {
    NSMutableArray all = NSMutableArray::array();
    for (const auto& each : names) all.addObject(shown(each));
    printJSON(all);
    return 0;
  }
  Table table({"NAME", "PROCESS", "USER", "SINCE", "COMMAND"}, {false, true, false, false, false});
  for (const auto& each : names) {
    table.add({harmless(each.name), each.state.process > 0 ? std::to_string(each.state.process) : "?",
               harmless(userText(each.user)), timeText(secondsSince1970At(each.since)),
               harmless(commandOf(each.state.process))});
  }
  if (names.empty()) say("no name is registered");
  if (names.empty()) return 0;
  for (const std::string& line : table.lines(isTerminal(STDOUT_FILENO))) printLine(line);
  return 0;
}

int info(const Context& context, const std::string& name) {
  BrokerLink link;
  const auto found = link.describe(name);
  if (!found) throw CommandError(ExitCode::notFound, "nobody serves \"" + name + "\"");
  NSMutableDictionary result = NSMutableDictionary::dictionaryWithDictionary(shown(*found));
  const auto traffic = trafficOf(name, found->state.process);
  if (traffic) result["traffic"] = shown(*traffic);
  if (context.json) {
    printJSON(result);
    return 0;
  }
  Table table({"", ""});
  const auto add = [&table](const char* what, const std::string& value) {
    table.add({styled(Style::bold, what), harmless(value)});
  };
  add("name", name);
  add("process", found->state.process > 0 ? std::to_string(found->state.process) : "unknown");
  add("user", userText(found->user) + (found->user >= 0 ? " (" + std::to_string(found->user) + ")" : ""));
  add("command", commandOf(found->state.process));
  add("since", timeText(secondsSince1970At(found->since)) + " (" + durationText(secondsSince(found->since)) + ")");
  if (found->standIn > 0) add("monitored by", "process " + std::to_string(found->standIn));
  if (traffic) {
    add("connections", std::to_string(traffic->connections) + " of " + std::to_string(traffic->accepted) + " so far");
    add("messages", std::to_string(traffic->messagesIn) + " in, " + std::to_string(traffic->messagesOut) + " out");
    add("bytes", std::to_string(traffic->bytesIn) + " in, " + std::to_string(traffic->bytesOut) + " out");
  }
  for (const std::string& line : table.lines(false)) printLine(line);
  return 0;
}

// The broker may come and go meanwhile.
int wait(const Context& context, const std::string& name, std::optional<double> timeout) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (;;) {
    const auto passed = std::chrono::duration<double>(Clock::now() - start).count();
    const auto left = timeout ? std::optional(std::max(0.0, *timeout - passed)) : std::nullopt;
    BrokerLink link;
    try {
      if (link.wait(name, left)) {
        if (const auto found = context.json ? link.describe(name) : std::nullopt) printJSON(shown(*found));
        return 0;
      }
    } catch (const CommandError& error) {
      if (error.code() != ExitCode::noBroker || (left && *left <= 0)) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      continue;
    }
    const auto now = std::chrono::duration<double>(Clock::now() - start).count();
    if (timeout && now >= *timeout) {
      throw CommandError(ExitCode::timedOut, "nobody serves \"" + name + "\" after " + durationText(*timeout));
    }
    throw CommandError(ExitCode::refused, "the broker has no room for one more that waits");
  }
}

}  // namespace

void addList(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("list", "Lists the names that are registered");
  command->callback([&context] { context.chosen = [&context] { return list(context); }; });
}

void addInfo(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("info", "Tells who serves a name, since when, and what has come there");
  const auto name = std::make_shared<std::string>();
  command->add_option("NAME", *name, "The name")->required();
  command->callback([&context, name] { context.chosen = [&context, name] { return info(context, *name); }; });
}

void addWait(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("wait", "Waits until a name is served");
  const auto name = std::make_shared<std::string>();
  const auto timeout = std::make_shared<std::optional<double>>();
  command->add_option("NAME", *name, "The name")->required();
  command->add_option("--timeout", *timeout, "For so long at most; else for ever")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e9));
  command->callback([&context, name, timeout] {
    context.chosen = [&context, name, timeout] { return wait(context, *name, *timeout); };
  });
}

}  // namespace velto::ctl
