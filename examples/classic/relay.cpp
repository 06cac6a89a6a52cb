// relay back | relay front | relay ask TEXT: the front answers with what it gets from the back, which may come and go.
// It serves, calls and reads its standard input ("status", or Return to end) in one thread. back ends with Return.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <VeltoIPC/VeltoIPC.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kBack = "org.velto.examples.relay.back";
constexpr const char* kFront = "org.velto.examples.relay.front";
constexpr double kPatienceSeconds = 10.0;
constexpr double kAnswerSeconds = 5.0;
constexpr auto kBackPatience = 2s;
constexpr auto kPause = 50ms;

int failed(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  return 1;
}

// What threads of the library hand to the program's own.
class Tasks {
 public:
  ~Tasks() { close(event_); }

  int fd() const { return event_; }
  void add(std::function<void()> task) {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    const std::uint64_t one = 1;
    if (write(event_, &one, sizeof one) < 0) return;
  }
  void runAll() {
    std::deque<std::function<void()>> tasks;
    {
      const std::lock_guard lock(mutex_);
      std::uint64_t count = 0;
      if (read(event_, &count, sizeof count) < 0) return;
      tasks.swap(tasks_);
    }
    for (const auto& task : tasks) task();
  }

 private:
  const int event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex_;
  std::deque<std::function<void()>> tasks_;
};

// A delegate whose events are told in the program's own thread.
class Events final : public VeltoIPCDelegate {
 public:
  struct Handlers {
    std::function<void()> ready;
    std::function<void(NSDictionary, VeltoReplyHandler)> received;
    std::function<void(NSString, NSError)> failed;
  };
  Events(std::shared_ptr<Tasks> tasks, Handlers handlers) : tasks_(std::move(tasks)), handlers_(std::move(handlers)) {}

  void connectionReady(NSString) override {
    if (handlers_.ready) tasks_->add(handlers_.ready);
  }
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    if (!handlers_.received) return usingHandler({{"error", "nobody takes messages here"}});
    tasks_->add([received = handlers_.received, message, usingHandler] { received(message, usingHandler); });
  }
  void connectionError(NSString connectionID, NSError error) override {
    tasks_->add([failed = handlers_.failed, connectionID, error] { failed(connectionID, error); });
  }

 private:
  const std::shared_ptr<Tasks> tasks_;
  const Handlers handlers_;
};

// The front's connection to the back, and what waits for it. All of it in the program's own thread.
class Back {
 public:
  explicit Back(std::shared_ptr<Tasks> tasks) : tasks_(std::move(tasks)) { connect(); }
  ~Back() {
    if (connection_) connection_->close();
  }

  void ask(const NSDictionary& message, VeltoReplyHandler answer) {
    const std::uint64_t number = ++lastNumber_;
    waiting_[number] = {message, std::move(answer), Clock::now() + kBackPatience};
    if (isReady_) send(number);
  }
  // When there is something to do in any case, in milliseconds; less than 0 for never.
  int timeout() const {
    std::optional<Clock::time_point> next = connectAt_;
    if (!waiting_.empty()) next = std::min(next.value_or(Clock::time_point::max()), waiting_.begin()->second.deadline);
    if (!next) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
    return static_cast<int>(std::max(0ms, left).count());
  }
  void onTime() {
    const auto now = Clock::now();
    while (!waiting_.empty() && waiting_.begin()->second.deadline <= now) {
      end(waiting_.begin()->first, {{"error", "no answer came in time"}});
    }
    if (connectAt_ && *connectAt_ <= now) connect();
  }

 private:
  struct Waiting {
    NSDictionary message;
    VeltoReplyHandler answer;
    Clock::time_point deadline;
  };

  void connect() {
    connectAt_.reset();
    const std::uint64_t attempt = ++attempt_;
    events_ = std::make_shared<Events>(
        tasks_, Events::Handlers{[this, attempt] { ready(attempt); }, nullptr,
                                 [this, attempt](const NSString&, const NSError& error) { lost(attempt, error); }});
    connection_ = VeltoConnection::initWithServiceName(kBack, events_);
  }
  void ready(std::uint64_t attempt) {
    if (attempt != attempt_) return;
    isReady_ = true;
    // What was asked before may be asked again: doing it twice does no harm.
    for (const auto& [number, each] : std::map(waiting_)) send(number);
  }
  void lost(std::uint64_t attempt, const NSError& error) {
    const std::string text = error.localizedDescription().string();
    // That the broker has gone is no matter of a connection that stands.
    if (attempt != attempt_ || (isReady_ && text.find("Daemon connection") != std::string::npos)) return;
    ++attempt_;
    isReady_ = false;
    connection_->close();
    connectAt_ = Clock::now() + kPause;
  }
  void send(std::uint64_t number) {
    NSError error;
    const auto answered = [this, tasks = tasks_, number](const NSDictionary& reply) {
      tasks->add([this, number, reply] { end(number, reply); });
    };
    if (!connection_->sendMessage(waiting_[number].message, &error, answered)) {
      end(number, {{"error", error.localizedDescription()}});
    }
  }
  void end(std::uint64_t number, const NSDictionary& reply) {
    const auto place = waiting_.find(number);
    if (place == waiting_.end()) return;
    const VeltoReplyHandler answer = std::move(place->second.answer);
    waiting_.erase(place);
    answer(reply);
  }

  const std::shared_ptr<Tasks> tasks_;
  std::shared_ptr<Events> events_;
  std::shared_ptr<VeltoConnection> connection_;
  bool isReady_ = false;
  std::uint64_t attempt_ = 0;
  std::uint64_t lastNumber_ = 0;
  std::optional<Clock::time_point> connectAt_;
  // In the order of their deadlines.
  std::map<std::uint64_t, Waiting> waiting_;
};

class BackService final : public VeltoIPCDelegate {
 public:
  void stop() { isStopping_ = true; }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    auto text = message["text"].to<std::string>();
    if (message["op"].to<std::string>() != "shout" || !text) {
      return usingHandler({{"error", "the message is not what it should be"}});
    }
    std::transform(text->begin(), text->end(), text->begin(), [](unsigned char c) { return std::toupper(c); });
    usingHandler({{"text", *text}});
  }
  void connectionError(NSString connectionID, NSError error) override {
    if (!connectionID && !isStopping_) failed(error.localizedDescription().string());
  }

 private:
  std::atomic<bool> isStopping_ = false;
};

int serveBack() {
  const auto service = std::make_shared<BackService>();
  const auto listener = VeltoListener::initWithServiceName(kBack, service);
  std::puts("serving");
  std::getchar();
  service->stop();
  listener->close();
  return 0;
}

int serveFront() {
  const auto tasks = std::make_shared<Tasks>();
  Back back(tasks);
  int answered = 0;
  const auto events = std::make_shared<Events>(
      tasks, Events::Handlers{nullptr,
                              [&](const NSDictionary& message, const VeltoReplyHandler& usingHandler) {
                                back.ask(message, [&answered, usingHandler](const NSDictionary& reply) {
                                  ++answered;
                                  usingHandler(reply);
                                });
                              },
                              [](const NSString& connectionID, const NSError& error) {
                                if (!connectionID) failed(error.localizedDescription().string());
                              }});
  const auto listener = VeltoListener::initWithServiceName(kFront, events);
  std::puts("serving");
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {tasks->fd(), POLLIN, 0}};
  while (poll(watched, 2, back.timeout()) >= 0) {
    back.onTime();
    if (watched[1].revents != 0) tasks->runAll();
    if (watched[0].revents == 0) continue;
    std::string line;
    if (!std::getline(std::cin, line) || line.empty()) break;
    std::printf("answered %d\n", answered);
  }
  listener->close();
  return 0;
}

int ask(const std::string& text) {
  const auto end = Clock::now() + std::chrono::duration<double>(kPatienceSeconds);
  NSError error;
  do {
    const auto connection = VeltoConnection::initWithServiceName(kFront, nullptr);
    if (connection->waitUntilReady(kPatienceSeconds, &error)) {
      const NSDictionary reply = connection->sendMessageSync({{"op", "shout"}, {"text", text}}, kAnswerSeconds, &error);
      connection->close();
      if (reply.isNil()) return failed(error.localizedDescription().string());
      if (const auto why = reply["error"].to<std::string>()) return failed(*why);
      return std::puts(reply["text"].stringValue().c_str()) < 0;
    }
    connection->close();
    std::this_thread::sleep_for(kPause);
  } while (Clock::now() < end);
  return failed(error.localizedDescription().string());
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  if (count > 2) return ask(words[2]);
  return count == 2 && std::string(words[1]) == "front" ? serveFront() : serveBack();
}
