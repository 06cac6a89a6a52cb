#pragma once

#include <string>
#include <vector>

namespace velto::xpc {

// A program that serves a name, and is started by the first who asks for it when nobody serves it. It gets the listening
// socket as descriptor 3, and is told so as by systemd: LISTEN_FDS is 1, LISTEN_PID its own number.
struct ServingProgram {
  // Its file name, looked for in $PATH where it is not found at `path`.
  std::string name;
  // Where it is installed; may be empty.
  std::string path;
  // Of the environment: a path or a file name to use instead; set and empty, nothing is started.
  std::string variable;
  std::vector<std::string> arguments;
};

}  // namespace velto::xpc
