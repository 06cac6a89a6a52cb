// A service in a process of its own: velto_calls_actor NAME. Says "registered" whenever it is, and "held" for each
// request that it holds. Ends with its parent.

#include <cstdint>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/prctl.h>

#include "VeltoIPC/Service.h"

namespace {

std::string residentBytes() {
  // The second number of statm is in pages.
  FILE* const statm = std::fopen("/proc/self/statm", "re");
  long size = 0, resident = 0;
  const int found = statm != nullptr ? std::fscanf(statm, "%ld %ld", &size, &resident) : 0;
  if (statm != nullptr) std::fclose(statm);
  return std::to_string(found == 2 ? resident * 4096 : 0);
}

void streamLines(const velto::Request& request) {
  const velto::Stream stream = request.stream();
  const auto count = request.message()["count"].integerValue();
  for (std::int64_t number = 0; number < count; ++number) {
    const std::string text = "line " + std::to_string(number) + std::string(100, '.');
    if (stream.write({{"number", number}, {"text", text}})) return;
  }
  request.reply({{"lines", count}, {"resident", residentBytes()}});
}

}  // namespace

int main(int count, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (count != 2) return 2;
  std::mutex mutex;
  std::vector<velto::Request> held;
  const auto say = [&mutex](const char* word) {
    const std::lock_guard lock(mutex);
    std::cout << word << std::endl;
  };
  velto::Service service(arguments[1], {.onRegistered = [&] { say("registered"); }});
  service.on("echo", [](const velto::Request& request) { request.reply(request.message()); });
  service.on("hold", [&](const velto::Request& request) {
    {
      const std::lock_guard lock(mutex);
      held.push_back(request);
    }
    say("held");
  });
  service.on("lines", [](const velto::Request& request) { std::thread(streamLines, request).detach(); });
  service.on("resident", [](const velto::Request& request) { request.reply({{"resident", residentBytes()}}); });
  service.start();
  for (;;) ::pause();
}
