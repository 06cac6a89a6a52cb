// veltoctl send: messages to a service, and its answers.
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "VeltoIPC/Client.h"
#include "tools/veltoctl/AsyncSender.h"
#include "tools/veltoctl/Connecting.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/Output.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

struct Wishes {
  std::string name;
  std::optional<std::string> text;
  std::optional<std::string> file;
  bool isAsync = false;
  double timeout = 10;
  std::uint64_t count = 1;
  double interval = 0;
};

NSDictionary messageOf(const Wishes& wishes) {
  if (wishes.file) return messageFrom(contentsOf(*wishes.file), *wishes.file == "-" ? "standard input" : *wishes.file);
  if (!wishes.text || *wishes.text == "-") return messageFrom(contentsOf("-"), "standard input");
  return messageFrom(*wishes.text, "the message");
}

void repeat(const Wishes& wishes, const std::function<void()>& sendOne) {
  for (std::uint64_t sent = 0; sent < wishes.count; ++sent) {
    if (sent > 0 && wishes.interval > 0) std::this_thread::sleep_for(std::chrono::duration<double>(wishes.interval));
    sendOne();
  }
}

int send(const Wishes& wishes) {
  const NSDictionary message = messageOf(wishes);
  const auto timeout = secondsOf(wishes.timeout);
  if (wishes.isAsync) {
    AsyncSender sender(wishes.name, timeout);
    repeat(wishes, [&] { sender.send(message, timeout); });
    sender.settle(timeout);
    return 0;
  }
  const Client client = connected(wishes.name, wishes.timeout);
  repeat(wishes, [&] {
    const auto reply = client.call(message, {.timeout = timeout}).get();
    if (!reply) throw CommandError(reply.error());
    printJSON(*reply ? NSObject(*reply) : NSObject(NSNull::null()));
  });
  return 0;
}

}  // namespace

void addSend(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("send", "Sends a message to a service and prints its answer");
  const auto wishes = std::make_shared<Wishes>();
  command->add_option("NAME", wishes->name, "The name of the service")->required();
  auto* const text =
      command->add_option("JSON", wishes->text, "The message; from standard input when it is missing or \"-\"");
  command->add_option("--file", wishes->file, "Takes the message from a file")->type_name("FILE")->excludes(text);
  command->add_flag("--async", wishes->isAsync, "Wants no answer");
  command->add_option("--timeout", wishes->timeout, "For so long at most for each message")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  command->add_option("--count", wishes->count, "So many times")
      ->type_name("NUMBER")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62))
      ->capture_default_str();
  command->add_option("--interval", wishes->interval, "So long between two of them")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  command->callback([&context, wishes] { context.chosen = [wishes] { return send(*wishes); }; });
}

}  // namespace velto::ctl
