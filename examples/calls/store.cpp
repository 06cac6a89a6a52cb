// store serve | store set KEY VALUE | store get KEY | store watch KEY: texts by their keys. A watcher sees the value
// that there is and then each change, in order; one that is too slow is told so and forgotten. serve ends with Return.

#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <VeltoIPC/VeltoIPC.h>

namespace {

constexpr const char* kName = "org.velto.examples.store";

struct Key {
  std::string key;
};
VELTO_FIELDS(Key, key)

struct Entry {
  std::string key;
  std::string value;
};
VELTO_FIELDS(Entry, key, value)

class Store {
 public:
  void set(const Entry& entry, const velto::Request& request) {
    const std::lock_guard lock(mutex_);
    Place& place = places_[entry.key];
    place.value = entry.value;
    for (const velto::Request& watcher : place.watchers) tell(watcher, entry);
    request.reply({});
  }
  velto::Outcome<Entry> get(const Key& key) {
    const std::lock_guard lock(mutex_);
    const auto& value = places_[key.key].value;
    if (!value) return velto::CallError(velto::Failure::failed, "nothing is stored there");
    return Entry{key.key, *value};
  }
  velto::Task watch(Key key, velto::Request request) {
    std::unique_lock lock(mutex_);
    Place& place = places_[key.key];
    const auto watcher = place.watchers.insert(place.watchers.end(), request);
    if (place.value) tell(request, {key.key, *place.value});
    lock.unlock();
    while (co_await request.stream().next()) continue;
    lock.lock();
    place.watchers.erase(watcher);
  }

 private:
  struct Place {
    std::optional<std::string> value;
    std::list<velto::Request> watchers;
  };

  static void tell(const velto::Request& watcher, const Entry& entry) {
    if (watcher.stream().tryWrite(entry)) watcher.fail("the watcher is too slow");
  }

  std::mutex mutex_;
  std::map<std::string, Place> places_;
};

int failed(const velto::CallError& error) {
  std::fprintf(stderr, "%s\n", error.text().c_str());
  return 1;
}

int serve() {
  // The watchers' coroutines may be through after the service.
  const auto store = std::make_shared<Store>();
  velto::Service service(kName, {.onUnregistered = failed});
  service.on<Entry>("set", [store](const Entry& entry, const velto::Request& request) { store->set(entry, request); });
  service.on<Key, Entry>("get", [store](const Key& key) { return store->get(key); });
  service.on<Key>("watch", [store](const Key& key, const velto::Request& request) { store->watch(key, request); });
  service.start();
  std::puts("serving");
  std::getchar();
  return 0;
}

int watch(const velto::Client& client, const std::string& key) {
  const velto::Stream changes = client.open({{"op", "watch"}, {"key", key}});
  for (const NSDictionary& change : changes) std::puts(change["value"].stringValue().c_str());
  return failed(changes.result().error());
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  const std::string role = count > 1 ? words[1] : "";
  if (role == "serve") return serve();
  const auto client = velto::Client::connect(kName);
  if (!client) return failed(client.error());
  if (role == "watch" && count == 3) return watch(*client, words[2]);
  if (role == "set" && count == 4) {
    const auto done = client->call("set", Entry{words[2], words[3]}).get();
    return done ? 0 : failed(done.error());
  }
  const auto entry = client->call<Entry>("get", Key{count == 3 ? words[2] : ""}).get();
  return entry ? std::puts(entry->value.c_str()) < 0 : failed(entry.error());
}
