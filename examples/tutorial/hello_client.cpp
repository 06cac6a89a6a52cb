// examples/tutorial/hello_client.cpp
#include <VeltoIPC/VeltoIPC.h>
#include <cstdio>

int main() {
  using namespace std::chrono_literals;
  const auto client = velto::Client::connect("org.example.hello", {.patience = 5s});
  if (!client) {
    std::puts(client.error().text().c_str());
    return 1;
  }
  const auto reply = client->call("hello", {{"name", "Ada"}}, {.timeout = 2s}).get();
  std::puts(reply ? (*reply)["text"].stringValue().c_str() : reply.error().text().c_str());
  return reply ? 0 : 1;
}
