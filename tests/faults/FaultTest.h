#pragma once

#include <cstddef>
#include <string>

#include "tests/faults/Exchange.h"
#include "tests/faults/FaultPlan.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {

// A test that makes system calls fail. What the platform keeps for the life of the process is made before.
class FaultTest : public QuietTest {
 protected:
  FaultTest();
  ~FaultTest() override;

  // An exchange without any fault.
  void expectWhole(const std::string& when);
  // Nothing was lost on the way out of it.
  void expectNothingBroken(const Transcript& transcript, const std::string& when);
  // Everything is closed again, but for what the test itself holds.
  void expectAtRest(const std::string& when, std::size_t held = 0);

  FaultPlan& plan = FaultPlan::shared();

 private:
  std::size_t atRest_ = 0;
};

}  // namespace velto::testing
