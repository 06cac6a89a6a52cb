// Setting a watch anew raises its event if there is something to read. What the watch looks like, the kernel tells in
// the description of the epoll descriptor.

#include "tests/faults/Announcing.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/epoll.h>

namespace velto::testing {

namespace {

void announceIn(int epoll, int descriptor) {
  std::ifstream description("/proc/self/fdinfo/" + std::to_string(epoll));
  for (std::string line; std::getline(description, line);) {
    int watched = -1;
    unsigned events = 0;
    unsigned long long data = 0;
    if (std::sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &watched, &events, &data) != 3) continue;
    if (watched != descriptor) continue;
    epoll_event event{};
    event.events = events;
    event.data.u64 = data;
    ::epoll_ctl(epoll, EPOLL_CTL_MOD, descriptor, &event);
  }
}

}  // namespace

void announceAgain(int descriptor) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closedMeanwhile;
    const auto target = std::filesystem::read_symlink(entry.path(), closedMeanwhile);
    if (target == "anon_inode:[eventpoll]") announceIn(std::stoi(entry.path().filename().string()), descriptor);
  }
}

}  // namespace velto::testing
