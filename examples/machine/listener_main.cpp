// machine_listener [clients]: answers questions about this machine; ends when so many clients have come and gone.

#include <cstdlib>
#include <memory>

#include "examples/machine/MachineService.h"

int main(int argumentCount, char** arguments) {
  constexpr double patienceSeconds = 60;
  const int clients = argumentCount > 1 ? std::atoi(arguments[1]) : 1;

  machine::Transcript transcript("listener");
  const auto service = std::make_shared<machine::MachineService>(transcript);
  service->start(service);
  transcript.say(
      NSString::stringWithFormat("serves %s until %d clients have come and gone", machine::kServiceName, clients));
  const bool allCame = service->waitForClients(clients, patienceSeconds);
  service->stop();
  transcript.check(allCame, NSString::stringWithFormat("served %d clients", clients));
  return transcript.exitCode();
}
