// A process that needs a broker:
//   velto_activation_guest find NAME      looks the name up; says "found" or why not
//   velto_activation_guest listen NAME    registers a VeltoListener, lets its link go, says "listening"; ends with its input
//   velto_activation_guest serve NAME     the same with a velto::Service
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

#include "VeltoIPC/VeltoIPC.h"

namespace {

class Delegate final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString) override { tell("found"); }
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler handler) override { handler(message); }
  void connectionError(NSString, NSError error) override { tell(error.localizedDescription().string()); }

  std::string told() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !told_.empty(); });
    return told_;
  }

 private:
  void tell(const std::string& what) {
    const std::lock_guard lock(mutex_);
    if (told_.empty()) told_ = what;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::string told_;
};

void untilInputEnds(const char* word) {
  std::cout << word << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
}

int find(const std::string& name) {
  const auto delegate = std::make_shared<Delegate>();
  const auto connection = VeltoConnection::initWithServiceName(name, delegate);
  const std::string told = delegate->told();
  std::cout << told << std::endl;
  return told == "found" ? 0 : 1;
}

int listen(const std::string& name) {
  const auto listener = VeltoListener::initWithServiceName(name, std::make_shared<Delegate>());
  if (find(name) != 0) return 1;
  // Its name stays while it lives, whatever becomes of the link.
  listener->close();
  untilInputEnds("listening");
  return 0;
}

int serve(const std::string& name) {
  velto::Service service(name);
  service.onOther([](const velto::Request& request) { request.reply(request.message()); });
  service.start();
  if (const auto error = service.waitUntilRegistered(std::chrono::seconds(20))) {
    std::cout << error->text() << std::endl;
    return 1;
  }
  untilInputEnds("serving");
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  const std::string role = arguments[1];
  if (role == "find") return find(arguments[2]);
  return role == "listen" ? listen(arguments[2]) : serve(arguments[2]);
}
