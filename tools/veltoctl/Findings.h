#pragma once

#include <string>
#include <vector>

namespace velto::ctl {

// What one look at the system has found.
struct Finding {
  enum class Kind { good, remark, bad };

  Kind kind = Kind::good;
  // What was looked at, in one word or two.
  std::string subject;
  // How it is.
  std::string state;
  // What to do about it; "" when nothing needs doing.
  std::string remedy = {};
};

// Each looks at one thing, changes nothing but what the library would make itself, and never fails.
Finding findRuntimeDirectory();
Finding findUser();
Finding findProc();
Finding findEndpoints();
Finding findDescriptorLimit();
Finding findProcessDescriptors();
Finding findSharedMemory();
Finding findBrokerProgram();
Finding findBroker();
Finding findListeners();

std::vector<Finding> findAll();

}  // namespace velto::ctl
