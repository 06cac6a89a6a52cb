#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>

#include "VeltoIPC/Stream.h"
#include "platform/foundation/Export.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSString.h"

namespace velto {

namespace calls {
class Incoming;
}

// A call that has come, to be answered once. Whoever lets go of the last copy unanswered has dropped it, and its caller
// hears so. Copies are the same request. Thread-safe.
class VELTO_EXPORT Request {
 public:
  [[nodiscard]] const NSDictionary& message() const noexcept;
  // The process that has sent it, as the kernel tells; 0 when it has none here.
  [[nodiscard]] int processIdentifier() const noexcept;
  // Its user, as the kernel told at connecting; -1 when it did not.
  [[nodiscard]] unsigned int userIdentifier() const noexcept;
  // A descriptor of that very process (a pidfd), kept from connecting on. Borrowed, for as long as there is a copy of
  // the request. -1 when the process had died before it was asked for, or the kernel has none.
  [[nodiscard]] int processDescriptor() const;
  // When its caller stops waiting, if he has said so.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> deadline() const noexcept;
  // Whether its caller has taken it back, or has gone.
  [[nodiscard]] bool isCancelled() const noexcept;
  // What is registered with it is called on the thread of the platform that hears of it, whatever delivers else: it
  // must not block.
  [[nodiscard]] std::stop_token stopToken() const;

  // Answers. False when it has been answered before.
  bool reply(const NSDictionary& reply) const;
  // Answers with an error that the caller gets as `failed`.
  bool fail(std::string text, std::int64_t code = 0) const;
  // Does not take it; its caller gets the reason as `refused`.
  bool refuse(std::string text) const;
  // Lets go of it unanswered, whoever has a copy; its caller gets the reason as `dropped`.
  bool drop(std::string text) const;

  // Whether its caller has opened a stream; the stream. Without one everything that is written to it is refused, and
  // nothing comes. The answer ends it, behind all that was written before.
  [[nodiscard]] bool hasStream() const noexcept;
  [[nodiscard]] Stream stream() const;

  // Whether both are the same one.
  friend bool operator==(const Request&, const Request&) = default;

  explicit Request(std::shared_ptr<calls::Incoming> incoming) noexcept : incoming_(std::move(incoming)) {}

 private:
  std::shared_ptr<calls::Incoming> incoming_;
};

}  // namespace velto
