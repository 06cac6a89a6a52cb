// examples/tutorial/notes_client.cpp
#include "notes.h"

#include <cstdio>
#include <string_view>

using namespace std::chrono_literals;

static void print(const Note& note) {
  std::printf("%s: %s\n", note.author.c_str(), note.text.c_str());
  std::fflush(stdout);
}

static int fail(const velto::CallError& error) {
  std::printf("%s (%s)\n", error.text().c_str(), nameOf(error.failure()));
  return 1;
}

static int add(const velto::Client& client, const Note& note) {
  const auto added = client.call<Note>("add", note, {.timeout = 2s}).get();
  return added ? 0 : fail(added.error());
}

static int list(const velto::Client& client) {
  const auto all = client.call<Notes>("list", {}, {.timeout = 2s}).get();
  if (!all) return fail(all.error());
  for (const Note& note : all->notes) print(note);
  return 0;
}

int main(int count, char** words) {
  const std::string_view what = count > 1 ? words[1] : "";
  velto::ClientOptions options{.patience = 5s};
  if (what == "watch") {
    options.reconnects = true;
    options.onMessage = [](const velto::Request& request) {
      if (const auto note = request.message().get<Note>()) print(*note);
    };
  }
  const auto client = velto::Client::connect("org.example.notes", options);
  if (!client) return fail(client.error());
  if (what == "add" && count == 4) return add(*client, {words[2], words[3]});
  if (what == "list") return list(*client);
  if (what != "watch") return std::puts("notes_client add AUTHOR TEXT | list | watch"), 2;
  std::puts("watching");
  std::fflush(stdout);
  std::getchar();  // until Return is pressed
}
