#pragma once

#include <memory>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto::transport {

class Channel;

// The channels that may have gathered frames, so that these are written when the process exits. One per process; a
// child of a fork begins with none. Thread-safe.
class Gathering {
 public:
  Gathering();

  // Raises std::bad_alloc.
  void add(Channel& channel);
  void remove(const Channel& channel) noexcept;
  // Not once the process exits: nobody would write it.
  static bool isAllowed() noexcept;

 private:
  struct Entry {
    const Channel* channel;
    std::weak_ptr<Channel> alive;
  };
  static void flushAtExit();
  void flushAll();

  Mutex mutex_;
  std::vector<Entry> entries_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::transport
