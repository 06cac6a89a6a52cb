#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto::xpc {

class ConnectionCore;

// Connections that wait because their listener has not accepted those before them yet, which the kernel does not tell
// when it changes. They stand in line, one line for each listener, and only the first of a line tries again: what it
// finds is true for all. Thread-safe.
class ConnectRetries {
 public:
  static ConnectRetries& shared();

  // `target` names the listener.
  void wait(const std::string& target, std::weak_ptr<ConnectionCore> connection);

 private:
  struct Line {
    std::deque<std::weak_ptr<ConnectionCore>> waiting;
    std::chrono::milliseconds pause{0};
  };

  void tryAgain(const std::string& target);
  void armFor(const std::string& target, std::chrono::milliseconds pause);

  Mutex mutex_;
  std::unordered_map<std::string, Line> lines_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::xpc
