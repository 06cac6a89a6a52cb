#pragma once

#include <memory>
#include <string>

#include "tests/support/ChildProcess.h"

namespace velto::testing {

// A service in a process of its own.
class Actor {
 public:
  explicit Actor(const std::string& name);

  void waitUntilRegistered() { waitFor("registered", 1); }
  void waitUntilHeld(int count) { waitFor("held", count); }
  void kill();

 private:
  void waitFor(const std::string& word, int count);

  ChildProcess process_;
};

}  // namespace velto::testing
