// poll_counter: counts what it is told. Its clients and its standard input have their turns in one loop and one thread,
// so that nothing needs a lock. Return ends it.

#include <cstdint>
#include <cstdio>
#include <memory>

#include <VeltoIPC/VeltoIPC.h>
#include <poll.h>
#include <unistd.h>

namespace {

class Counter final : public VeltoIPCDelegate {
 public:
  std::int64_t total() const { return total_; }

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    total_ += message["by"].integerValue();
    usingHandler({{"total", total_}});
  }
  // Clients come and go; what is said of none of them is about the listener itself.
  void connectionError(NSString connectionID, NSError error) override {
    if (!connectionID) std::fprintf(stderr, "%s\n", error.localizedDescription().UTF8String());
  }

 private:
  std::int64_t total_ = 0;
};

}  // namespace

int main() {
  const velto::Loop loop;
  const auto counter = std::make_shared<Counter>();
  const auto listener = VeltoListener::initWithServiceName("org.velto.examples.counter", counter, loop);
  std::puts("serving");
  std::fflush(stdout);
  pollfd watched[] = {{loop.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  while (poll(watched, 2, -1) > 0 && watched[1].revents == 0) loop.dispatch();
  listener->close();
  std::printf("total %lld\n", static_cast<long long>(counter->total()));
  return 0;
}
