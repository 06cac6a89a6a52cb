#pragma once

#include <functional>
#include <string>

#include "platform/foundation/NSDictionary.h"

namespace CLI {
class App;
}

namespace velto::ctl {

// What all commands share: the options for all, and what the chosen one does, which ends with an ExitCode or throws a
// CommandError.
struct Context {
  bool json = false;
  std::function<int()> chosen;
};

// A command with its options; its work becomes context.chosen when it is asked for.
void addList(CLI::App& app, Context& context);
void addInfo(CLI::App& app, Context& context);
void addWait(CLI::App& app, Context& context);
void addSend(CLI::App& app, Context& context);
void addListen(CLI::App& app, Context& context);
void addMonitor(CLI::App& app, Context& context);
void addBench(CLI::App& app, Context& context);
void addStats(CLI::App& app, Context& context);
void addTop(CLI::App& app, Context& context);
void addDoctor(CLI::App& app, Context& context);

// The message that a text in JSON is; "{}" for an empty text. Anything but a dictionary is a mistake of the user's.
NSDictionary messageFrom(const std::string& json, const std::string& where);
// All of a file; of standard input for "-".
std::string contentsOf(const std::string& path);

}  // namespace velto::ctl
