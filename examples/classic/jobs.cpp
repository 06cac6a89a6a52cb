// jobs serve | jobs run COMMAND: runs a command line at the service, and shows its output line by line and then its
// exit status. An interrupt (SIGINT) of the client cancels it, and so does the client's death. serve ends with Return.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <VeltoIPC/VeltoIPC.h>

#include "examples/support/Command.h"
#include "examples/support/Interrupts.h"
#include "examples/support/Threads.h"

namespace {

constexpr const char* kName = "org.velto.examples.jobs";
constexpr double kPatienceSeconds = 10.0;
// Lines that are on their way to one client.
constexpr int kMostLines = 256;

int failed(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  return 1;
}

// One command, and what its client has not dealt with.
class Job {
 public:
  Job(NSString connection, const std::string& command) : connection_(std::move(connection)), command_(command) {}

  // The caller has taken it back, or has gone.
  void cancel() {
    const std::lock_guard lock(mutex_);
    isCancelled_ = true;
    command_.kill();
    changed_.notify_all();
  }

  static void execute(const std::shared_ptr<Job>& self, VeltoListener& listener) {
    while (const auto line = self->command_.readLine()) {
      if (!self->awaitRoom()) return;
      const bool isSent = listener.sendMessage({{"line", *line}}, self->connection_, nullptr,
                                               [self](const NSDictionary&) { self->lineDealtWith(); });
      if (!isSent) return;
    }
    const int status = self->command_.wait();
    listener.sendMessage({{"status", status}}, self->connection_);
  }

 private:
  bool awaitRoom() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isCancelled_ || lines_ < kMostLines; });
    ++lines_;
    return !isCancelled_;
  }
  void lineDealtWith() {
    const std::lock_guard lock(mutex_);
    --lines_;
    changed_.notify_all();
  }

  const NSString connection_;
  Command command_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int lines_ = 0;
  bool isCancelled_ = false;
};

class Jobs final : public VeltoIPCDelegate, public std::enable_shared_from_this<Jobs> {
 public:
  void start() { listener_ = VeltoListener::initWithServiceName(kName, shared_from_this()); }
  void stop() {
    isStopping_ = true;
    listener_->close();
    const std::lock_guard lock(mutex_);
    for (const auto& [connection, job] : jobs_) job->cancel();
  }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override {
    const auto operation = message["op"].to<std::string>();
    const auto command = message["command"].to<std::string>();
    if (operation == "run" && command) {
      run(*command, fromConnection, usingHandler);
    } else if (operation == "cancel") {
      cancel(fromConnection);
      usingHandler({});
    } else {
      usingHandler({{"error", "the message is not what it should be"}});
    }
  }
  void connectionError(NSString connectionID, NSError error) override {
    if (connectionID) return cancel(connectionID);
    if (!isStopping_) failed(error.localizedDescription().string());
  }

 private:
  void run(const std::string& command, const NSString& connection, const VeltoReplyHandler& usingHandler) {
    std::shared_ptr<Job> job;
    {
      const std::lock_guard lock(mutex_);
      if (!isStopping_ && jobs_.count(connection) == 0) {
        job = jobs_[connection] = std::make_shared<Job>(connection, command);
      }
    }
    if (!job) return usingHandler({{"error", "one job at a time"}});
    usingHandler({});
    threads_.run([this, job, connection] {
      Job::execute(job, *listener_);
      const std::lock_guard lock(mutex_);
      jobs_.erase(connection);
    });
  }
  void cancel(const NSString& connection) {
    const std::lock_guard lock(mutex_);
    const auto place = jobs_.find(connection);
    if (place != jobs_.end()) place->second->cancel();
  }

  std::shared_ptr<VeltoListener> listener_;
  std::atomic<bool> isStopping_ = false;
  std::mutex mutex_;
  std::map<NSString, std::shared_ptr<Job>> jobs_;
  Threads threads_;
};

// Shows the lines that come, and knows how it ended.
class Output final : public VeltoIPCDelegate {
 public:
  int waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return status_ || error_; });
    if (error_) return failed(*error_);
    std::printf("exit status %d\n", *status_);
    return 0;
  }
  void fail(const std::string& text) {
    const std::lock_guard lock(mutex_);
    error_ = text;
    ended_.notify_all();
  }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    if (const auto line = message["line"].to<std::string>()) std::puts(line->c_str());
    if (const auto status = message["status"].to<int>()) {
      const std::lock_guard lock(mutex_);
      status_ = *status;
      ended_.notify_all();
    }
    usingHandler({});
  }
  void connectionError(NSString, NSError error) override {
    // That the broker has gone is no matter of this connection's.
    const std::string text = error.localizedDescription().string();
    if (text.find("Daemon connection") == std::string::npos) fail(text);
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::optional<int> status_;
  std::optional<std::string> error_;
};

// A connection that is ready, as soon as the name is served; else null.
std::shared_ptr<VeltoConnection> connect(const std::shared_ptr<VeltoIPCDelegate>& delegate, NSError& error) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(kPatienceSeconds);
  do {
    auto connection = VeltoConnection::initWithServiceName(kName, delegate);
    if (connection->waitUntilReady(kPatienceSeconds, &error)) return connection;
    connection->close();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  } while (std::chrono::steady_clock::now() < end);
  return nullptr;
}

int serve() {
  const auto jobs = std::make_shared<Jobs>();
  jobs->start();
  std::puts("serving");
  std::getchar();
  jobs->stop();
  return 0;
}

int run(const std::string& command) {
  std::mutex mutex;
  std::shared_ptr<VeltoConnection> connection;
  const auto output = std::make_shared<Output>();
  const Interrupts interrupts([&] {
    const std::lock_guard lock(mutex);
    if (connection) connection->sendMessage({{"op", "cancel"}});
    output->fail("the call was taken back");
  });
  NSError error;
  const auto made = connect(output, error);
  if (!made) return failed(error.localizedDescription().string());
  {
    const std::lock_guard lock(mutex);
    connection = made;
  }
  const NSDictionary reply = made->sendMessageSync({{"op", "run"}, {"command", command}}, kPatienceSeconds, &error);
  int result = 0;
  if (reply.isNil()) {
    result = failed(error.localizedDescription().string());
  } else if (const auto text = reply["error"].to<std::string>()) {
    result = failed(*text);
  } else {
    result = output->waitForEnd();
  }
  made->close();
  return result;
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return count > 2 ? run(words[2]) : serve();
}
