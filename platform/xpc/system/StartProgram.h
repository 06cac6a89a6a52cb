#pragma once

#include <string>
#include <vector>

namespace velto::system {

// A program to be started with one descriptor.
struct ProgramStart {
  std::string path;
  std::vector<std::string> arguments;    // after its name
  std::vector<std::string> environment;  // LISTEN_FDS and LISTEN_PID are added
  int borrowedSocket = -1;               // becomes descriptor 3
};

// Starts it as nobody's child, in a session of its own, in the root directory, with no signal blocked, ignored or
// handled, and with nothing open but the socket and /dev/null. Returns once it runs: 0, or what is wrong. The process
// that starts it hears of no child: no SIGCHLD, and nothing for its wait().
int startDetached(const ProgramStart& start);

}  // namespace velto::system
