// veltoctl: what a developer asks of a running system. Each command is a file of its own; this one finds out which is
// meant, and makes of every way to end an exit code and a line on standard error.
#include <cstdlib>
#include <exception>
#include <string>

#include "platform/foundation/JSON.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/logging/VeltoLogging.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/ExitCode.h"
#include "tools/veltoctl/Output.h"
#include <CLI/CLI.hpp>

namespace {

using velto::ctl::ExitCode;

int endWith(ExitCode code, const std::string& text, bool asJSON) {
  if (asJSON) {
    const NSDictionary error{{"error", NSDictionary{{"code", static_cast<int>(code)},
                                                    {"name", nameOf(code)},
                                                    {"text", NSString::stringWithUTF8(text)}}}};
    std::fprintf(stderr, "%s\n", velto::toJSON(error).c_str());
  } else {
    velto::ctl::say(text);
  }
  return static_cast<int>(code);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  // What fails is told by the commands.
  VKTLogSetLevel(VKTLogLevelOff);
  CLI::App app("Looks at, talks to and measures VeltoIPC services.", "veltoctl");
  app.set_version_flag("--version", "veltoctl " VELTO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  velto::ctl::Context context;
  app.add_flag("--json", context.json, "Data as JSON, one value on each line; failures as JSON on standard error");
  for (const auto add : {velto::ctl::addList, velto::ctl::addInfo, velto::ctl::addWait, velto::ctl::addSend,
                         velto::ctl::addListen, velto::ctl::addMonitor, velto::ctl::addBench, velto::ctl::addStats,
                         velto::ctl::addTop, velto::ctl::addDoctor}) {
    add(app, context);
  }
  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return endWith(ExitCode::usage, std::string(error.what()) + " (veltoctl --help tells more)", context.json);
  }
  try {
    return context.chosen();
  } catch (const velto::ctl::CommandError& error) {
    return endWith(error.code(), error.what(), context.json);
  } catch (const std::exception& error) {
    return endWith(ExitCode::failure, error.what(), context.json);
  }
}
