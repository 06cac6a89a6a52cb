// jobs serve | jobs run COMMAND: runs a command line at the service, and shows its output line by line and then its
// exit status. An interrupt (SIGINT) of the client cancels it, and so does the client's death. serve ends with Return.

#include <cstdio>
#include <stop_token>
#include <string>

#include <VeltoIPC/VeltoIPC.h>

#include "examples/support/Command.h"
#include "examples/support/Interrupts.h"
#include "examples/support/Threads.h"

namespace {

constexpr const char* kName = "org.velto.examples.jobs";

int failed(const velto::CallError& error) {
  std::fprintf(stderr, "%s\n", error.text().c_str());
  return 1;
}

void execute(const velto::Request& request) {
  Command command(request.message()["command"].stringValue());
  const std::stop_callback kills(request.stopToken(), [&] { command.kill(); });
  const velto::Stream output = request.stream();
  while (const auto line = command.readLine()) {
    if (const auto error = output.write({{"line", *line}})) return void(request.fail(error->text()));
  }
  request.reply({{"status", command.wait()}});
}

int serve() {
  Threads threads;
  velto::Service service(kName, {.onUnregistered = failed});
  service.on("run", [&](const velto::Request& request) { threads.run([request] { execute(request); }); });
  service.start();
  std::puts("serving");
  std::getchar();
  return 0;
}

int run(const std::string& command) {
  std::stop_source stop;
  const Interrupts interrupts([&] { stop.request_stop(); });
  const auto client = velto::Client::connect(kName);
  if (!client) return failed(client.error());
  const velto::Stream output = client->open({{"op", "run"}, {"command", command}}, {.stop = stop.get_token()});
  for (const NSDictionary& item : output) std::puts(item["line"].stringValue().c_str());
  const auto result = output.result();
  if (!result) return failed(result.error());
  std::printf("exit status %ld\n", (*result)["status"].integerValue());
  return 0;
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return count > 2 ? run(words[2]) : serve();
}
