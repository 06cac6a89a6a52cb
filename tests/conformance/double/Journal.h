#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto::testing {

// What happened, one line each, in order: calls of the library at the platform, log lines, callbacks of delegates.
// Thread-safe.
class Journal {
 public:
  using Lines = std::vector<std::string>;
  using Observer = std::function<void(const std::string& line)>;

  void write(const std::string& line);
  Lines lines() const;
  // The lines that begin like this.
  Lines beginningWith(const std::string& start) const;
  // The lines so far, which are then forgotten.
  Lines take();
  // Called for each line from now on, on the thread that caused it and at that very moment: what it sees is the state
  // in between two steps. An empty one ends it.
  void observe(Observer observer);
  // Waits until the line has come; the test fails when it does not.
  bool waitFor(const std::string& line) const;

 private:
  mutable Mutex mutex_;
  mutable std::condition_variable changed_;
  Lines lines_ VELTO_GUARDED_BY(mutex_);
  Observer observer_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
