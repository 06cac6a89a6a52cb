#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "daemon/Broker.h"

namespace velto::fuzzing {

// What a broker with two processes around it must know, as a plain map and a plain list.
struct BrokerModel {
  struct Entry {
    std::size_t endpoint;
    std::uint64_t link;
    std::size_t process;
    std::uint64_t age;
    // 0 when it was not told.
    std::uint64_t registration = 0;
  };
  struct Wait {
    std::uint64_t link;
    std::size_t process;
    std::uint64_t call;
    std::string name;
    // What it waits for has come; and it was told so.
    bool isDue = false;
    bool isTold = false;
  };
  using Names = std::map<std::string, Entry>;

  static bool isName(const std::string& text);

  // Whether the broker must take it from a link of that process, and why not.
  bool mayRegister(std::uint64_t link, std::size_t process, const std::string& name) const;
  // What the other process holds more of makes room, when it is clearly more.
  void makeRoomForName(std::size_t process, const std::string& name);
  void forget(Names::iterator entry);
  // Whoever waits for another state of it is to be told.
  void changed(const std::string& name);
  // Whether one of that process may wait; then, which other waiter is to make room.
  bool mayWait(std::size_t process, Wait*& leaving);

  const BrokerLimits limits;
  Names names = {};
  // In the order in which they came.
  std::vector<Wait> waits = {};

 private:
  std::size_t namesOf(std::size_t process) const;
  std::size_t waitersOf(std::size_t process) const;
};

}  // namespace velto::fuzzing
