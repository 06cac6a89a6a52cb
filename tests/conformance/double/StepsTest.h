#pragma once

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/conformance/double/PlatformDouble.h"
#include "tests/support/Errors.h"
#include "tests/support/Printing.h"
#include "tests/support/RecordingDelegate.h"

namespace velto::testing {

// A delegate whose callbacks go into the journal, and (with their arguments, for reactions and closer looks) to
// `recorded`. `name` begins its lines:
//
//   NAME connectionReady ID
//   NAME receivedMessage MESSAGE from ID
//   NAME connectionError ID CODE TEXT
class JournalDelegate final : public VeltoIPCDelegate {
 public:
  JournalDelegate(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}

  RecordingDelegate recorded;

  void connectionReady(NSString connectionID) override;
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override;
  void connectionError(NSString connectionID, NSError error) override;

 private:
  const std::string name_;
  Journal& journal_;
};

// A test on the platform double. Its journal also holds the log, as "log LEVEL TEXT".
class StepsTest : public ::testing::Test {
 protected:
  using Lines = Journal::Lines;

  StepsTest();
  ~StepsTest() override;

  std::shared_ptr<JournalDelegate> makeDelegate(const std::string& name);
  Journal& journal() { return platform.journal(); }
  // What the platform would report.
  static NSError platformError();

  PlatformDouble platform;
  std::shared_ptr<JournalDelegate> delegate = makeDelegate("delegate");
};

}  // namespace velto::testing
