// examples/tutorial/hello_service.cpp
#include <VeltoIPC/VeltoIPC.h>
#include <cstdio>

int main() {
  velto::Service service("org.example.hello");
  service.on("hello", [](const velto::Request& request) {
    request.reply({{"text", "Hello, " + request.message()["name"].stringValue() + "!"}});
  });
  service.start();
  std::getchar();  // serves until Return is pressed
}
