#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/support/LibraryTest.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::testing {

// What one run of veltoctl came to.
struct Ran {
  int code = -1;
  std::string output;
  std::string errors;

  // Of the output.
  std::vector<std::string> lines() const;
  NSObject json() const;
};

// Runs it to its end, with this on its standard input.
Ran run(const std::vector<std::string>& arguments, const std::string& input = "");
// The same on a terminal that takes colours, where everything comes that it writes.
Ran runOnTerminal(const std::vector<std::string>& arguments);
// As it runs; its output by lines.
class Running : public ChildProcess {
 public:
  explicit Running(const std::vector<std::string>& arguments, Errors errors = Errors::inherit);
  // The next line that holds this; "" at the end of the output.
  std::string lineWith(const std::string& text);
};

int code(ctl::ExitCode code);

// With a broker's program in a runtime directory of the test's own.
class WithBroker : public ::testing::Test {
 protected:
  // Registered when it returns.
  static void start(Service& service);
  // What `info` tells of a name.
  static NSDictionary infoOf(const std::string& name);
  static bool isServed(const std::string& name);

  const RuntimeDirectory directory;
  DaemonProcess daemon;
};

}  // namespace velto::testing
