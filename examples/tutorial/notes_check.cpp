// examples/tutorial/notes_check.cpp
#include "notes.h"

#include <cstdio>

// A test of the service: in one process, without a broker, with names that nobody else sees.
int main() {
  const velto::InProcess place;
  Board board;
  velto::Service service("notes", {.place = place});
  board.serveAt(service);
  service.start();
  const auto client = velto::Client::connect("notes", {.place = place}).value();
  const bool isRefused = !client.call<Note>("add", Note{"Ada", ""}).get();
  const bool isAdded = client.call<Note>("add", Note{"Ada", "the engine works"}).get().has_value();
  const bool isListed = client.call<Notes>("list", {}).get().value().notes.size() == 1;
  std::puts(isRefused && isAdded && isListed ? "works" : "does not work");
}
