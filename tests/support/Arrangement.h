#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/peer/End.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {

// Where the ends and the broker run.
enum class Arrangement { allHere, endsHereWithDaemon, endsInChildrenWithDaemon };

std::string nameOf(Arrangement arrangement);

// An end, wherever it is: see End for the commands. One command at a time; ends may be asked side by side.
class Actor {
 public:
  virtual ~Actor() = default;
  virtual std::string ask(const std::string& command) = 0;
};

// An end in a child process.
class ChildActor final : public Actor {
 public:
  ChildActor();
  std::string ask(const std::string& command) override;
  ChildProcess& process() { return process_; }

 private:
  ChildProcess process_;
};

// A test that runs in one arrangement after the other.
class ArrangedTest : public QuietTest, public ::testing::WithParamInterface<Arrangement> {
 protected:
  ArrangedTest();

  std::unique_ptr<Actor> makeEnd() const;
  // A listener under the name "flow".
  std::unique_ptr<Actor> makeListener(const std::string& name = "flow any") const;
  // A client of it, ready.
  std::unique_ptr<Actor> makeClient() const;

  std::unique_ptr<BrokerHere> brokerHere;
  std::unique_ptr<DaemonProcess> daemon;
};

inline const auto kAllArrangements =
    ::testing::Values(Arrangement::allHere, Arrangement::endsHereWithDaemon, Arrangement::endsInChildrenWithDaemon);
inline std::string printArrangement(const ::testing::TestParamInfo<Arrangement>& information) {
  return nameOf(information.param);
}

}  // namespace velto::testing
