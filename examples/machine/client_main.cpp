// machine_client NAME facts | machine_client NAME files PATH...: a client of machine_listener, called NAME in what it
// says. Exits with 0 when everything that it wanted to see came true.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "examples/machine/Roles.h"

namespace {

int play(const std::string& name, const std::string& role, const std::vector<std::string>& paths) {
  machine::Transcript transcript(name);
  const auto events = std::make_shared<machine::ClientEvents>(transcript);
  const auto connection = VeltoConnection::initWithServiceName("org.velto.examples.machine", events);
  NSError error;
  const bool isReady = connection->waitUntilReady(machine::kAnswerSeconds, &error);
  if (!transcript.check(isReady, "is connected to org.velto.examples.machine", error)) return transcript.exitCode();
  if (role == "facts") {
    machine::playFacts(*connection, *events, transcript);
  } else {
    machine::playFiles(*connection, *events, transcript, paths);
  }
  connection->close();
  return transcript.exitCode();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const std::vector<std::string> words(arguments + 1, arguments + argumentCount);
  if (words.size() < 2 || (words[1] != "facts" && words[1] != "files") || (words[1] == "files") != (words.size() > 2)) {
    std::fprintf(stderr, "usage: machine_client NAME facts | machine_client NAME files PATH...\n");
    return 2;
  }
  return play(words[0], words[1], {words.begin() + 2, words.end()});
}
