#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/foundation/NSDictionary.h"
#include "tools/veltoctl/FrameText.h"
#include "tools/veltoctl/Relay.h"

namespace velto::ctl {

// Something that a monitor has seen.
struct Event {
  enum class Kind { opened, frame, closed };

  Kind kind = Kind::frame;
  std::uint64_t connection = 0;
  std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
  // Of whom it comes: of a connection that has closed, who has gone first.
  Relay::Direction direction = Relay::Direction::toService;
  PassedFrame frame = {};
  // The client; when it opens.
  std::int32_t client = 0;
  // How the protocol was broken; when it closes.
  std::string reason = {};
};

// Prints events on a thread of its own, so that a slow terminal holds nobody up: what is too much meanwhile is left
// out, and counted. Thread-safe.
class EventPrinter {
 public:
  explicit EventPrinter(bool asJSON);
  ~EventPrinter();
  EventPrinter(const EventPrinter&) = delete;
  EventPrinter& operator=(const EventPrinter&) = delete;

  void add(Event event);
  // Prints what there is, and nothing more from then on.
  void finish();
  // False once nobody reads what is printed.
  bool isRead() const;

 private:
  static constexpr std::size_t kMostEvents = 65536;
  static constexpr std::size_t kMostBytes = std::size_t{32} << 20;

  void run();
  bool print(const Event& event) const;
  bool printLeftOut(std::uint64_t count) const;

  const bool asJSON_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  std::size_t bytes_ = 0;
  std::uint64_t leftOut_ = 0;
  bool isOver_ = false;
  bool isRead_ = true;
  std::thread thread_;
};

}  // namespace velto::ctl
