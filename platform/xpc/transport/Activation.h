#pragma once

#include <string>
#include <string_view>

#include "platform/xpc/contract/ServingProgram.h"
#include "platform/xpc/transport/Sockets.h"

namespace velto::transport {

// What the environment said about a program when this was made: it is to be read only on threads of the program's own.
struct ProgramChoice {
  explicit ProgramChoice(const xpc::ServingProgram& program);

  // Where it is. "" and the reason, with what can be done, when nothing is to be started.
  std::string find(std::string& reason) const;

  xpc::ServingProgram program;
  bool isNamed = false;  // by the variable
  std::string named;
  std::string searchPath;
};

// As connectToService(). But where nobody serves the name, the program is started to serve it, by one process only,
// however many ask at the same time; the connection waits for it to accept.
ConnectAttempt connectOrStart(std::string_view name, const ProgramChoice& choice, const std::string& fromEnvironment);

}  // namespace velto::transport
