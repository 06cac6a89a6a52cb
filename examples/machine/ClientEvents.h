#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <VeltoIPC/VeltoIPC.h>

#include "examples/machine/Transcript.h"

namespace machine {

// The client's side of what happens: says it, answers the listener's question, and lets the program wait for an end.
class ClientEvents final : public VeltoIPCDelegate {
 public:
  explicit ClientEvents(Transcript& transcript) : transcript_(transcript) {}

  // Waits until an error with this text has been reported; false when none came within `seconds`.
  bool waitForError(const std::string& text, double seconds);
  // Whether the listener has asked, and was answered.
  bool wasAsked();

  void connectionReady(NSString connectionID) override;
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override;
  void connectionError(NSString connectionID, NSError error) override;

 private:
  Transcript& transcript_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> errors_;
  bool wasAsked_ = false;
};

}  // namespace machine
