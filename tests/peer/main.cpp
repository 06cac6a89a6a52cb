// An end in a process of its own: takes commands from standard input and answers on standard output, line by line. It
// ends with its input, and with its parent.

#include <iostream>
#include <string>

#include <signal.h>
#include <sys/prctl.h>

#include "platform/logging/VeltoLogging.h"
#include "tests/peer/End.h"

int main() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // What is expected to fail would only clutter the test's output.
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
  velto::testing::End end;
  for (std::string line; std::getline(std::cin, line);) std::cout << end.perform(line) << std::endl;
  return 0;
}
