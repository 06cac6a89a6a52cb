// veltoctl listen: serves a name, prints what comes and answers it.
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "VeltoIPC/Service.h"
#include "platform/foundation/Foundation.h"
#include "tools/veltoctl/Answering.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/ExitCode.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Processes.h"
#include "tools/veltoctl/Signals.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

constexpr std::chrono::seconds kPatience{35};
constexpr std::chrono::seconds kFarewell{5};

struct Wishes {
  std::string name;
  std::optional<std::string> reply;
  std::optional<std::string> command;
  std::uint64_t count = 0;
  bool takesOver = false;
  bool isStrict = false;
};

// With --json, with what else is known of it.
NSObject lineOf(const Request& request, bool isEnveloped) {
  const NSObject message = request.message() ? NSObject(request.message()) : NSObject(NSNull::null());
  if (!isEnveloped) return message;
  return NSDictionary{{"time", NSDate::date()},
                      {"process", request.processIdentifier()},
                      {"user", static_cast<std::int64_t>(request.userIdentifier())},
                      {"message", message}};
}

int listen(const Context& context, const Wishes& wishes) {
  const NSDictionary reply = messageFrom(wishes.reply.value_or(""), "the reply");
  Signals signals;
  std::atomic<std::uint64_t> count{0};
  std::atomic<bool> isRead{true};
  std::atomic<bool> isLost{false};
  ServiceOptions options;
  options.strictTypes = wishes.isStrict;
  options.namePolicy = wishes.takesOver ? NamePolicy::takeOver : NamePolicy::refuseIfTaken;
  options.onUnregistered = [&isLost](const CallError& error) {
    if (error.failure() == Failure::taken) isLost = true;
  };
  Service service(wishes.name, options);
  service.onOther([&](const Request& request) {
    const std::uint64_t number = ++count;
    if (wishes.count > 0 && number > wishes.count)
      return request.drop("veltoctl listen has had all that it waits for"), void();
    if (!printJSON(lineOf(request, context.json))) isRead = false;
    wishes.command ? answerByCommand(*wishes.command, request) : void(request.reply(reply));
  });
  service.start();
  if (const auto error = service.waitUntilRegistered(kPatience)) throw CommandError(*error);
  if (!context.json) say("listening on " + wishes.name);
  signals.waitOr([&] { return !isRead || isLost || (wishes.count > 0 && count >= wishes.count); });
  service.stop(kFarewell);
  if (isLost) throw CommandError(ExitCode::lost, "another has taken the name over");
  return 0;
}

}  // namespace

void addListen(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("listen", "Serves a name, prints the messages that come and answers them");
  const auto wishes = std::make_shared<Wishes>();
  command->add_option("NAME", wishes->name, "The name to serve")->required();
  auto* const reply = command->add_option("--reply", wishes->reply, "Answers each message with this, instead of {}");
  reply->type_name("JSON");
  command
      ->add_option("--exec", wishes->command,
                   "Answers each message with what this command of the shell makes of it: the message comes on its "
                   "standard input, the answer from its standard output")
      ->type_name("COMMAND")
      ->excludes(reply);
  command->add_option("--count", wishes->count, "Ends after so many messages")->type_name("NUMBER");
  command->add_flag("--take-over", wishes->takesOver, "Takes the name over from whoever has it");
  command->add_flag("--strict", wishes->isStrict, "Takes plain types only, as services do by themselves");
  command->callback([&context, wishes] { context.chosen = [&context, wishes] { return listen(context, *wishes); }; });
}

}  // namespace velto::ctl
