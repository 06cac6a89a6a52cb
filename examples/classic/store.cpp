// store serve | store set KEY VALUE | store get KEY | store watch KEY: texts by their keys. A watcher sees the value
// that there is and then each change, in order; one that is too slow is told so and forgotten. serve ends with Return.

#include <algorithm>
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
#include <vector>

#include <VeltoIPC/VeltoIPC.h>

namespace {

constexpr const char* kName = "org.velto.examples.store";
constexpr double kPatienceSeconds = 10.0;
// Changes that are on their way to one watcher.
constexpr int kMostChanges = 256;

int failed(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  return 1;
}

class Store final : public VeltoIPCDelegate, public std::enable_shared_from_this<Store> {
 public:
  void start() { listener_ = VeltoListener::initWithServiceName(kName, shared_from_this()); }
  void stop() {
    isStopping_ = true;
    listener_->close();
  }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override {
    const auto operation = message["op"].to<std::string>();
    const auto key = message["key"].to<std::string>();
    const auto value = message["value"].to<std::string>();
    if (operation == "set" && key && value) {
      set(*key, *value);
      usingHandler({});
    } else if (operation == "get" && key) {
      get(*key, usingHandler);
    } else if (operation == "watch" && key) {
      watch(*key, fromConnection);
      usingHandler({});
    } else {
      usingHandler({{"error", "the message is not what it should be"}});
    }
  }
  void connectionError(NSString connectionID, NSError error) override {
    if (!connectionID) {
      if (!isStopping_) failed(error.localizedDescription().string());
      return;
    }
    // Of one message that could not be delivered, or the end: the watcher has missed something in any case.
    const std::lock_guard lock(mutex_);
    for (auto& [key, place] : places_) {
      std::erase_if(place.watchers, [&](const auto& watcher) { return watcher->connection == connectionID; });
    }
  }

 private:
  struct Watcher {
    NSString connection;
    std::atomic<int> changesUnderWay = 0;
  };
  struct Place {
    std::optional<std::string> value;
    std::vector<std::shared_ptr<Watcher>> watchers;
  };

  void set(const std::string& key, const std::string& value) {
    const std::lock_guard lock(mutex_);
    Place& place = places_[key];
    place.value = value;
    std::erase_if(place.watchers, [&](const auto& watcher) { return !tell(watcher, value); });
  }
  void get(const std::string& key, const VeltoReplyHandler& usingHandler) {
    std::optional<std::string> value;
    {
      const std::lock_guard lock(mutex_);
      value = places_[key].value;
    }
    usingHandler(value ? NSDictionary{{"value", *value}} : NSDictionary{{"error", "nothing is stored there"}});
  }
  void watch(const std::string& key, const NSString& connection) {
    const auto watcher = std::make_shared<Watcher>();
    watcher->connection = connection;
    const std::lock_guard lock(mutex_);
    Place& place = places_[key];
    if (!place.value || tell(watcher, *place.value)) place.watchers.push_back(watcher);
  }
  // With the lock held, so that changes go in order. False when the watcher is to be forgotten.
  bool tell(const std::shared_ptr<Watcher>& watcher, const std::string& value) {
    if (watcher->changesUnderWay >= kMostChanges) {
      listener_->sendMessage({{"error", "the watcher is too slow"}}, watcher->connection);
      return false;
    }
    ++watcher->changesUnderWay;
    return listener_->sendMessage({{"value", value}}, watcher->connection, nullptr,
                                  [watcher](const NSDictionary&) { --watcher->changesUnderWay; });
  }

  std::shared_ptr<VeltoListener> listener_;
  std::atomic<bool> isStopping_ = false;
  std::mutex mutex_;
  std::map<std::string, Place> places_;
};

// Shows the changes that come, and knows when no more do.
class Changes final : public VeltoIPCDelegate {
 public:
  std::string waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return end_.has_value(); });
    return *end_;
  }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    if (const auto value = message["value"].to<std::string>()) {
      std::puts(value->c_str());
    } else {
      end(message["error"].stringValue());
    }
    usingHandler({});
  }
  void connectionError(NSString, NSError error) override {
    // That the broker has gone is no matter of this connection's.
    const std::string text = error.localizedDescription().string();
    if (text.find("Daemon connection") == std::string::npos) end(text);
  }

 private:
  void end(const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (!end_) end_ = text;
    ended_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  std::optional<std::string> end_;
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
  const auto store = std::make_shared<Store>();
  store->start();
  std::puts("serving");
  std::getchar();
  store->stop();
  return 0;
}

int call(VeltoConnection& connection, const NSDictionary& message) {
  NSError error;
  const NSDictionary reply = connection.sendMessageSync(message, kPatienceSeconds, &error);
  if (reply.isNil()) return failed(error.localizedDescription().string());
  if (const auto text = reply["error"].to<std::string>()) return failed(*text);
  if (const auto value = reply["value"].to<std::string>()) std::puts(value->c_str());
  return 0;
}

int watch(const std::string& key) {
  const auto changes = std::make_shared<Changes>();
  NSError error;
  const auto connection = connect(changes, error);
  if (!connection) return failed(error.localizedDescription().string());
  int result = call(*connection, {{"op", "watch"}, {"key", key}});
  if (result == 0) result = failed(changes->waitForEnd());
  connection->close();
  return result;
}

int setOrGet(const NSDictionary& message) {
  NSError error;
  const auto connection = connect(nullptr, error);
  if (!connection) return failed(error.localizedDescription().string());
  const int result = call(*connection, message);
  connection->close();
  return result;
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  const std::string role = count > 1 ? words[1] : "";
  if (role == "serve") return serve();
  if (role == "watch" && count == 3) return watch(words[2]);
  if (role == "set" && count == 4) return setOrGet({{"op", "set"}, {"key", words[2]}, {"value", words[3]}});
  return setOrGet({{"op", "get"}, {"key", count == 3 ? words[2] : ""}});
}
