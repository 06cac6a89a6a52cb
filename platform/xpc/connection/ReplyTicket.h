#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/xpc/interface/Protocol.h"

namespace velto::xpc {

class ConnectionCore;

// The right to answer one call, once. Whoever lets go of it unused has told the caller's end that no answer will come.
class ReplyTicket {
 public:
  ReplyTicket(std::weak_ptr<ConnectionCore> core, std::uint64_t identifier, const Method& method)
      : core_(std::move(core)), identifier_(identifier), method_(method) {}
  ~ReplyTicket();
  ReplyTicket(const ReplyTicket&) = delete;
  ReplyTicket& operator=(const ReplyTicket&) = delete;

  // Sends the answer. Later ones are ignored and logged.
  void answer(const NSObject& value);
  // Uses the ticket up without an answer: the caller was told otherwise.
  void settle() noexcept;

 private:
  const std::weak_ptr<ConnectionCore> core_;
  const std::uint64_t identifier_;
  const Method& method_;
  std::atomic<bool> settled_{false};
};

}  // namespace velto::xpc
