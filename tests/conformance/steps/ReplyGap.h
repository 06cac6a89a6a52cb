#pragma once

#include <functional>
#include <future>
#include <utility>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSSynchronized.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// Lets the reply of a synchronous send come in the gap between the end of its wait and its return. The send writes its
// time-out error while it holds its condition: at that moment the gap opens. One thread takes the monitor that the send
// needs next, and keeps it until another, which must wait for the condition, has brought the reply.
class ReplyGap {
 public:
  // An error for the out-pointer of the send: when it is written over, `reply` is called in the gap, with the monitor
  // of `table` held elsewhere.
  NSError errorThatOpensIt(const NSObject& table, std::function<void()> reply) {
    const NSData opener =
        NSData::dataWithBytesNoCopy("", 0, [this, table, reply = std::move(reply)] { open(table, reply); });
    return NSError::errorWithDomain("gap", 0, {{"opener", opener}});
  }
  bool wasOpened() const { return wasOpened_; }

 private:
  void open(const NSObject& table, const std::function<void()>& reply) {
    wasOpened_ = true;
    auto held = held_.get_future();
    holder_ = inBackground([this, table] {
      const NSSynchronized monitor(table);
      held_.set_value();
      auto replied = replied_.get_future();
      finish(replied);
    });
    finish(held);
    replier_ = inBackground([this, reply] {
      reply();
      replied_.set_value();
    });
  }

  bool wasOpened_ = false;
  std::promise<void> held_;
  std::promise<void> replied_;
  std::future<void> holder_;
  std::future<void> replier_;
};

}  // namespace velto::testing
