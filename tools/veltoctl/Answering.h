#pragma once

#include <string>

#include "VeltoIPC/Request.h"
#include "platform/foundation/NSDictionary.h"

namespace velto::ctl {

// Runs a command of the shell, which gets the message as JSON on standard input, and answers with what it writes to
// standard output: JSON too, an empty answer when it writes nothing. One that fails, or writes what is no message,
// answers with an error. Blocks until the command has ended.
void answerByCommand(const std::string& command, const Request& request);

}  // namespace velto::ctl
