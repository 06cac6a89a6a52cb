#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/conformance/Locks.h"
#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {

using Lines = std::vector<LogCapture::Line>;

inline constexpr const char* kName = "org.velto.test.conformance";
inline constexpr double kLong = static_cast<double>(kBound.count());
inline constexpr double kShort = 0.03;

// A test whose ends are in this process; the broker is here too, or a program of its own.
class ListenerHere : public ArrangedTest {
 protected:
  // Forgets the log once the last lines of so many handshakes are there.
  void clearLogOfHandshakes(std::size_t clients = 1);
  // The log without the lines of the broker, which may be in this process.
  Lines linesOfEnds() const;
  // Another client of the listener `kName`, without the library.
  static std::unique_ptr<BareClient> bareClient();
};

inline const auto kArrangementsHere = ::testing::Values(Arrangement::allHere, Arrangement::endsHereWithDaemon);

// A listener under `kName` and a client of it that is ready.
struct TwoEnds {
  explicit TwoEnds(ListenerEnd::Types types = ListenerEnd::Types::strict)
      : server(kName, types), client(kName), id(client.ready()) {}

  // The listener's connectionReady has long returned; waits until its proxy is stored too.
  ListenerEnd server;
  ClientEnd client;
  const NSString id;
};

// A message of plain types, and one that strict types forbid.
NSDictionary plainMessage();
NSDictionary messageWithDate();
NSDictionary messageWithAnchor();

// Something for a handler to hold: whether the handler can still be called.
class HandlerProbe {
 public:
  VeltoReplyHandler handler() const;
  // How often it was called.
  std::size_t calls() const { return *calls_; }
  bool isReleased() const { return calls_.use_count() == 1; }

 private:
  const std::shared_ptr<std::atomic<std::size_t>> calls_ = std::make_shared<std::atomic<std::size_t>>(0);
};

// A reply that has come, waited for.
class ReplyProbe {
 public:
  VeltoReplyHandler handler() const;
  NSDictionary wait() const;

 private:
  const std::shared_ptr<std::promise<NSDictionary>> promise_ = std::make_shared<std::promise<NSDictionary>>();
  const std::shared_ptr<std::shared_future<NSDictionary>> future_ =
      std::make_shared<std::shared_future<NSDictionary>>(promise_->get_future().share());
};

// Holds a test up until something has happened elsewhere.
class Gate {
 public:
  void open();
  void wait();

 private:
  std::promise<void> promise_;
  std::shared_future<void> opened_ = promise_.get_future().share();
};

// The label of a log line of the reply chain, "LABEL handler …".
std::string labelOf(const std::string& line);
// An underscore and a universally unique identifier after the connection's.
bool isLabelOf(const std::string& label, const NSString& connectionID);

}  // namespace velto::testing
