// velto_hostile_victim listener NAME [READY-PAUSE-MILLISECONDS [SINK-PAUSE-MILLISECONDS]]
// velto_hostile_victim client NAME
// velto_hostile_victim crowd NAME COUNT
// velto_hostile_victim newcomer NAME SECONDS
//
// A process for others to attack: it uses the library as an application does, obeys the lines on its standard input,
// and is looked at from outside. Built from the public headers alone, so that it can be built against any release.

#include <cstdio>
#include <cstdlib>

#include <malloc.h>

#include "tests/hostile/victim/ClientVictim.h"
#include "tests/hostile/victim/CrowdVictim.h"
#include "tests/hostile/victim/ListenerVictim.h"

int main(int argumentCount, char** arguments) {
  // What is measured is what the process holds, not what each thread's heap keeps of large pieces that it was given
  // back: they are mapped one by one.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  const std::string role = argumentCount > 2 ? arguments[1] : "";
  const std::string name = argumentCount > 2 ? arguments[2] : "";
  const std::string third = argumentCount > 3 ? arguments[3] : "0";
  const std::chrono::milliseconds sinkPause(argumentCount > 4 ? std::strtol(arguments[4], nullptr, 10) : 0);
  if (role == "newcomer") return velto::hostile::runNewcomer(name, std::strtod(third.c_str(), nullptr));
  if (role == "listener") {
    velto::hostile::ListenerVictim victim(name, std::chrono::milliseconds(std::strtol(third.c_str(), nullptr, 10)));
    if (sinkPause.count() > 0) victim.installSlowSink(sinkPause);
    velto::hostile::say("listening");
    victim.serve();
  } else if (role == "client") {
    velto::hostile::ClientVictim victim(name);
    velto::hostile::say(victim.waitUntilReady() ? "ready" : "not ready");
    victim.serve();
  } else if (role == "crowd") {
    velto::hostile::CrowdVictim victim(name, std::strtoul(third.c_str(), nullptr, 10));
    velto::hostile::say("connecting");
    victim.serve();
  } else {
    std::fputs("usage: velto_hostile_victim listener|client|crowd|newcomer NAME [NUMBER]\n", stderr);
    return 2;
  }
  // Its threads may be stranded: whoever waits for them waits for ever.
  std::fflush(stdout);
  std::_Exit(0);
}
