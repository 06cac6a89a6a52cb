// An end that does what it is told. Its events are lines in a list; whatever waits for one waits for a line.

#include "tests/peer/End.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "tests/peer/Payload.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

struct End::State {
  std::shared_ptr<Delegate> delegate;
  std::shared_ptr<VeltoListener> listener;
  std::shared_ptr<VeltoConnection> connection;

  Mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events VELTO_GUARDED_BY(mutex);
  std::vector<std::pair<NSDictionary, VeltoReplyHandler>> held VELTO_GUARDED_BY(mutex);

  void record(std::string event) {
    {
      MutexLock lock(mutex);
      events.push_back(std::move(event));
    }
    changed.notify_all();
  }
  std::vector<std::string> matching(const std::string& beginning);
  std::string await(std::size_t count, const std::string& beginning);
  NSDictionary send(const NSDictionary& message, const NSString& to, double timeout, NSError* error) const {
    return listener ? listener->sendMessageSync(message, to, timeout, error)
                    : connection->sendMessageSync(message, timeout, error);
  }
};

std::vector<std::string> End::State::matching(const std::string& beginning) {
  MutexLock lock(mutex);
  std::vector<std::string> found;
  for (const std::string& event : events) {
    if (event.starts_with(beginning)) found.push_back(event);
  }
  return found;
}

std::string End::State::await(std::size_t count, const std::string& beginning) {
  const auto end = std::chrono::steady_clock::now() + kBound;
  MutexLock lock(mutex);
  for (;;) {
    const auto seen = std::count_if(events.begin(), events.end(),
                                    [&](const std::string& event) { return event.starts_with(beginning); });
    if (static_cast<std::size_t>(seen) >= count) return "seen";
    if (lock.waitUntil(changed, end) == std::cv_status::timeout) break;
  }
  std::string all = "missing, there was:";
  for (const std::string& event : events) all += "|" + event;
  return all;
}

class End::Delegate final : public VeltoIPCDelegate {
 public:
  explicit Delegate(std::weak_ptr<State> state) : state_(std::move(state)) {}

  void connectionReady(NSString connectionID) override {
    if (const auto state = state_.lock()) state->record("ready " + connectionID.description().string());
  }

  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override {
    const auto state = state_.lock();
    if (!state) return;
    const std::string payload = payloadOf(message);
    const std::string word = wordOf(payload);
    // Held before it is told of: whoever hears of it may have it answered.
    if (word == "hold") {
      MutexLock lock(state->mutex);
      state->held.emplace_back(message, std::move(usingHandler));
    }
    state->record("message " + payload + " from " + fromConnection.description().string());
    if (word == "echo" || word == "date" || word == "bytes") usingHandler(message);
    if (word == "nest") usingHandler(messageOf(nest(*state, payload, fromConnection)));
    if (word == "finish") finishConnection(*state, fromConnection);
  }

  void connectionError(NSString connectionID, NSError error) override {
    const auto state = state_.lock();
    if (!state) return;
    state->record("error " + connectionID.description().string() + " " + std::to_string(error.code()) + " " +
                  error.localizedDescription().string());
  }

 private:
  // Sends one less to the other end, from inside the callback, and answers what that brought.
  static std::string nest(const State& state, const std::string& payload, const NSString& from) {
    const int depth = std::stoi(textOf(payload));
    if (depth == 0) return payload;
    NSError error;
    const NSDictionary reply = state.send(messageOf("nest:" + std::to_string(depth - 1)), from, 20.0, &error);
    if (reply.isNil()) return "failed:" + describe(error);
    return payloadOf(reply) == "nest:" + std::to_string(depth - 1) ? payload : payloadOf(reply);
  }

  static void finishConnection(const State& state, const NSString& from) {
    if (state.listener) {
      state.listener->close(from);
    } else {
      state.connection->close();
    }
  }

  const std::weak_ptr<State> state_;
};

End::End() : state_(std::make_shared<State>()) {}

// What closing brings is waited for, so that nothing of it reaches the next test of the process.
End::~End() {
  close({});
  if (state_->delegate) state_->await(1, "error (null) 2 Daemon connection invalidated");
}

std::string End::perform(const std::string& line) {
  std::istringstream stream(line);
  std::string command;
  stream >> command;
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  // What follows the first word, spaces and all.
  const auto rest = [&] {
    const std::size_t first = line.find(' ');
    const std::size_t second = line.find(' ', first + 1);
    return second == std::string::npos ? std::string() : line.substr(second + 1);
  };
  if (command == "listen") return listen(words);
  if (command == "connect") return connect(words);
  if (command == "ready") {
    NSError error;
    return state_->connection->waitUntilReady(std::stod(words.at(0)), &error) ? "yes" : describe(error);
  }
  if (command == "id") return state_->connection->getID().description().string();
  if (command == "sync") return sync(words);
  if (command == "async") return async(words);
  if (command == "burst") return burst(words);
  if (command == "await") return state_->await(std::stoul(words.at(0)), rest());
  if (command == "count") return std::to_string(state_->matching(line.substr(6)).size());
  if (command == "list") {
    std::string list;
    for (const std::string& event : state_->matching(line.substr(5))) list += (list.empty() ? "" : "|") + event;
    return list;
  }
  if (command == "active") return state_->listener->isConnectionActive_internal(NSString(words.at(0))) ? "yes" : "no";
  if (command == "answer") return answer();
  if (command == "types") {
    state_->listener->setStrictMessageTypes(words.at(0) == "strict");
    return "done";
  }
  if (command == "close") return close(words);
  return "what is '" + command + "'?";
}

std::string End::listen(const Words& words) {
  state_->delegate = std::make_shared<Delegate>(state_);
  state_->listener = VeltoListener::initWithServiceName(words.at(0), state_->delegate);
  if (words.size() > 1 && words[1] == "any") state_->listener->setStrictMessageTypes(false);
  settle(state_->listener->daemonConnection());
  return "listening";
}

std::string End::connect(const Words& words) {
  state_->delegate = std::make_shared<Delegate>(state_);
  state_->connection = VeltoConnection::initWithServiceName(words.at(0), state_->delegate);
  return "connecting";
}

std::string End::sync(const Words& words) {
  NSError error;
  const NSString to = words.size() > 2 ? NSString(words[2]) : NSString(nil);
  const NSDictionary reply = state_->send(messageOf(words.at(1)), to, std::stod(words.at(0)), &error);
  return reply.isNil() ? describe(error) : "reply " + payloadOf(reply);
}

std::string End::async(const Words& words) {
  NSError error;
  const NSDictionary message = messageOf(words.at(0));
  const VeltoReplyHandler handler = [state = std::weak_ptr(state_)](const NSDictionary& reply) {
    if (const auto alive = state.lock()) alive->record("reply " + payloadOf(reply));
  };
  const bool sent = state_->listener ? state_->listener->sendMessage(message, words.at(1), &error, handler)
                                     : state_->connection->sendMessage(message, &error, handler);
  return sent ? "sent" : describe(error);
}

std::string End::burst(const Words& words) {
  const int count = std::stoi(words.at(0));
  for (int number = 0; number < count; ++number) {
    const std::string payload = "echo:" + std::to_string(number);
    NSError error;
    const NSDictionary reply = state_->send(messageOf(payload), nil, 20.0, &error);
    if (payloadOf(reply) != payload) return payloadOf(reply) + " " + describe(error);
  }
  return "done";
}

std::string End::answer() {
  std::vector<std::pair<NSDictionary, VeltoReplyHandler>> held;
  {
    MutexLock lock(state_->mutex);
    held.swap(state_->held);
  }
  for (const auto& [message, handler] : held) handler(message);
  return "answered " + std::to_string(held.size());
}

std::string End::close(const Words& words) {
  if (state_->connection) state_->connection->close();
  if (state_->listener && words.empty()) state_->listener->close();
  if (state_->listener && !words.empty()) state_->listener->close(NSString(words[0]));
  return "closed";
}

}  // namespace velto::testing
