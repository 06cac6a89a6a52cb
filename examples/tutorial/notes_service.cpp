// examples/tutorial/notes_service.cpp
#include <cstdio>

#include "notes.h"

int main() {
  using namespace std::chrono_literals;
  Board board;
  velto::Service service("org.example.notes", {.namePolicy = velto::NamePolicy::refuseIfTaken});
  board.serveAt(service);
  service.start();
  if (const auto why = service.waitUntilRegistered(5s)) {
    std::puts(why->text().c_str());
    return 1;
  }
  std::puts("serving");
  std::fflush(stdout);
  std::getchar();    // until Return is pressed
  service.stop(5s);  // answers what has come, then closes
}
