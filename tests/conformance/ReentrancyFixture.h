#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {

// A reaction that runs in the first callback that asks for it, and is waited for.
class Once {
 public:
  explicit Once(std::function<void()> reaction) : reaction_(std::move(reaction)) {}

  void run() {
    if (begun_.exchange(true)) return;
    reaction_();
    done_.open();
  }
  void wait() { done_.wait(); }

 private:
  const std::function<void()> reaction_;
  std::atomic<bool> begun_{false};
  Gate done_;
};

// What a test reports for a client.
NSError reportedError();

// Every public function but the close of the whole.
void callEverything(VeltoListener& listener, const NSString& id);
void callEverything(VeltoConnection& client);

// On this thread, and on another that is waited for.
template <class... Arguments>
void callEverythingTwice(Arguments&... arguments) {
  callEverything(arguments...);
  auto other = inBackground([&] {
    callEverything(arguments...);
    return true;
  });
  EXPECT_TRUE(finish(other));
}

// A client whose callbacks may come before its maker has it.
struct EarlyClient {
  explicit EarlyClient(std::shared_ptr<RecordingDelegate> itsDelegate)
      : delegate(std::move(itsDelegate)), connection(VeltoConnection::initWithServiceName(kName, delegate)) {}
  ~EarlyClient() {
    connection->close();
    delegate->waitForError("Daemon connection invalidated");
    waitUntilAlone(connection);
    delegate->quiesce();
  }
  EarlyClient(const EarlyClient&) = delete;
  EarlyClient& operator=(const EarlyClient&) = delete;

  const std::shared_ptr<RecordingDelegate> delegate;
  const std::shared_ptr<VeltoConnection> connection;
};

// A test that provokes one callback and does something in it.
class ReentrancyTest : public ListenerHere {
 protected:
  // Runs `reaction` in the callback of an error with this text, or of any error without one.
  static void inError(RecordingDelegate& delegate, Once& once, const std::string& text = "") {
    delegate.onError([&once, text](const NSString&, const NSError& error) {
      if (text.empty() || error.localizedDescription().view() == text) once.run();
    });
  }
  static void expectAlive(const TwoEnds& ends) {
    ends.client.delegate->echo();
    ends.server.delegate->echo();
    EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
    EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  }
  static void expectServing(const ListenerEnd& server) {
    ClientEnd client(kName);
    client.delegate->echo();
    EXPECT_EQ(server.listener->sendMessageSync(plainMessage(), client.ready(), kLong), plainMessage());
  }
};

}  // namespace velto::testing
