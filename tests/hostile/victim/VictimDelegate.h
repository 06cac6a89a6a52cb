#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/hostile/victim/Gate.h"

namespace velto::hostile {

// Does what the messages that come ask for: whoever attacks chooses what this process's callbacks are busy with.
//
// A message's "do" is one of: answer, gate (waits for the gate, then answers), condition (the same, asleep in a
// condition of the platform), back (sends back without a time-out, then answers), back-timed (the same, for ten
// seconds), big (answers with "bytes" bytes of data), keep (keeps the handler and never answers). Anything else lets
// the handler go.
class VictimDelegate final : public VeltoIPCDelegate {
 public:
  // Sends to a connection and waits; what the owner is, this need not know.
  using SendBack = std::function<NSDictionary(NSString toConnection, double timeout)>;

  void setSendBack(SendBack sendBack) { sendBack_ = std::move(sendBack); }
  // How long connectionReady sleeps.
  void setReadyPause(std::chrono::milliseconds pause) { readyPause_ = pause; }
  void openGate() { gate_.open(); }

  std::vector<std::string> identifiers() const;
  // "ready=1 messages=2 …", for the line that tells the figures.
  std::string figures() const;

  void connectionReady(NSString connectionID) override;
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override;
  void connectionError(NSString connectionID, NSError error) override;

 private:
  void obey(const std::string& order, const NSDictionary& message, const NSString& fromConnection,
            const VeltoReplyHandler& usingHandler);

  // Both set before the first callback.
  SendBack sendBack_;
  std::chrono::milliseconds readyPause_{0};
  Gate gate_;
  std::atomic<std::size_t> messages_{0};
  std::atomic<std::size_t> inside_{0};
  std::atomic<std::size_t> errors_{0};
  mutable std::mutex mutex_;
  std::vector<std::string> identifiers_;
  std::vector<VeltoReplyHandler> kept_;
};

}  // namespace velto::hostile
