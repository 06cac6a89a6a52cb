// relay back | relay front | relay ask TEXT: the front answers with what it gets from the back, which may come and go.
// It serves, calls and reads its standard input ("status", or Return to end) in one thread. back ends with Return.

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include <VeltoIPC/VeltoIPC.h>
#include <poll.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr const char* kBack = "org.velto.examples.relay.back";
constexpr const char* kFront = "org.velto.examples.relay.front";

struct Text {
  std::string text;
};
VELTO_FIELDS(Text, text)

int failed(const velto::CallError& error) {
  std::fprintf(stderr, "%s\n", error.text().c_str());
  return 1;
}

int serveBack() {
  velto::Service service(kBack, {.onUnregistered = failed});
  service.on<Text, Text>("shout", [](Text text) {
    std::transform(text.text.begin(), text.text.end(), text.text.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    return text;
  });
  service.start();
  std::puts("serving");
  std::getchar();
  return 0;
}

int serveFront() {
  velto::Loop loop;
  const auto back = velto::Client::connect(kBack, {.reconnects = true, .delivery = loop});
  if (!back) return failed(back.error());
  int answered = 0;
  velto::Service service(kFront, {.delivery = loop, .onUnregistered = failed});
  service.on("shout", [&](velto::Request request) -> velto::Task {
    const auto call = back->call<Text>(request.message(), {.timeout = 2s, .isIdempotent = true});
    const auto reply = co_await call;
    ++answered;
    reply ? request.reply(*reply) : request.fail(reply.error().text());
  });
  service.start();
  std::puts("serving");
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {loop.fd(), POLLIN, 0}};
  while (poll(watched, 2, -1) > 0) {
    if (watched[1].revents != 0) loop.dispatch();
    if (watched[0].revents == 0) continue;
    std::string line;
    if (!std::getline(std::cin, line) || line.empty()) break;
    std::printf("answered %d\n", answered);
  }
  return 0;
}

int ask(const std::string& text) {
  const auto client = velto::Client::connect(kFront);
  if (!client) return failed(client.error());
  const auto reply = client->call<Text>("shout", Text{text}, {.timeout = 5s}).get();
  return reply ? std::puts(reply->text.c_str()) < 0 : failed(reply.error());
}

}  // namespace

int main(int count, char** words) {
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  if (count > 2) return ask(words[2]);
  return count == 2 && std::string(words[1]) == "front" ? serveFront() : serveBack();
}
