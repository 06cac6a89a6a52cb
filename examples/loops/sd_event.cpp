// sd_event_counter: the same as poll_counter, with a service, in the loop of sd-event. Return ends it.

#include <cstdint>
#include <cstdio>

#include <VeltoIPC/VeltoIPC.h>
#include <systemd/sd-event.h>
#include <unistd.h>

namespace {

int failed(const velto::CallError& error) {
  std::fprintf(stderr, "%s\n", error.text().c_str());
  return 1;
}

int dispatch(sd_event_source*, int, std::uint32_t, void* loop) {
  static_cast<const velto::Loop*>(loop)->dispatch();
  return 0;
}

int keyPressed(sd_event_source* source, int, std::uint32_t, void*) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

}  // namespace

int main() {
  velto::Loop loop;
  sd_event* event = nullptr;
  if (sd_event_default(&event) < 0) return 1;
  // Both descriptors are level-triggered: what a turn leaves behind comes in the next.
  if (sd_event_add_io(event, nullptr, loop.fd(), EPOLLIN, dispatch, &loop) < 0 ||
      sd_event_add_io(event, nullptr, STDIN_FILENO, EPOLLIN, keyPressed, nullptr) < 0) {
    return 1;
  }
  std::int64_t total = 0;
  velto::Service service("org.velto.examples.counter", {.delivery = loop, .onUnregistered = failed});
  service.on("add", [&total](const velto::Request& request) {
    total += request.message()["by"].integerValue();
    request.reply({{"total", total}});
  });
  service.start();
  std::puts("serving");
  std::fflush(stdout);
  const int result = sd_event_loop(event);
  std::printf("total %lld\n", static_cast<long long>(total));
  sd_event_unref(event);
  return result < 0 ? 1 : 0;
}
