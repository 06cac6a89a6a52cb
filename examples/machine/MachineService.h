#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <VeltoIPC/VeltoIPC.h>

#include "examples/machine/Transcript.h"

namespace machine {

inline constexpr const char* kServiceName = "org.velto.examples.machine";

// The listener's side: answers questions, {"question": "load"} for example, and keeps count of the clients.
class MachineService final : public VeltoIPCDelegate {
 public:
  explicit MachineService(Transcript& transcript);

  // Registers the name; from then on clients come.
  void start(const std::shared_ptr<VeltoIPCDelegate>& self);
  // Waits until so many clients have come and gone. False when that takes longer than `seconds`.
  bool waitForClients(int count, double seconds);
  void stop();

  void connectionReady(NSString connectionID) override;
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override;
  void connectionError(NSString connectionID, NSError error) override;

 private:
  void recogniseClient(const NSString& connectionID, const VeltoReplyHandler& usingHandler);
  void farewell(const NSString& connectionID, const VeltoReplyHandler& usingHandler);

  Transcript& transcript_;
  std::shared_ptr<VeltoListener> listener_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int comeClients_ = 0;
  int goneClients_ = 0;
  // The questions that are never answered.
  std::vector<VeltoReplyHandler> openQuestions_;
};

}  // namespace machine
