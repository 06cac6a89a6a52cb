#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "broker/VeltoIPCNamesProtocol.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto::calls {

// Takes connections.
class Acceptor {
 public:
  virtual ~Acceptor() = default;
  virtual void accept(std::shared_ptr<NSXPCConnection> connection) = 0;
};

// What is served under which name in this process, told and waited for as at the broker. Thread-safe. Nothing is called
// with the lock held.
class Names {
 public:
  // Whether it stands; without taking over, it does not when another does.
  NameAnswer add(const std::string& name, const std::weak_ptr<Acceptor>& acceptor, bool takingOver);
  void remove(const std::string& name, const Acceptor& acceptor);
  struct Found {
    bool isServed = false;
    // Null also when the kernel has nothing left.
    std::shared_ptr<NSXPCConnection> connection;
  };
  Found connect(const std::string& name);

  // Calls the answer once something else stands than the known registration, 0 for none; before it returns when that is
  // so already. Not any more once what is returned is let go of (a call that has begun may still be running).
  using Answer = std::function<void(const NameState&)>;
  class Wait;
  std::shared_ptr<Wait> wait(const std::string& name, std::uint64_t known, Answer answer);

 private:
  using Waits = std::vector<std::weak_ptr<Wait>>;
  struct Entry {
    const Acceptor* acceptor = nullptr;
    std::weak_ptr<Acceptor> alive;
    std::uint64_t registration = 0;
    Waits waits;
  };

  static NameState stateOf(const Entry& entry);
  static void tell(const Waits& waits, const NameState& state);

  Mutex mutex_;
  std::map<std::string, Entry> entries_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t lastRegistration_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::calls
