#include "calls/Outbox.h"

#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

bool Outbox::post(const NSDictionary& message) {
  {
    MutexLock lock(mutex_);
    if (waiting_.size() >= limits::kBroadcastBacklog) return false;
    waiting_.push_back(message);
  }
  flush();
  return true;
}

void Outbox::open() {
  {
    MutexLock lock(mutex_);
    isOpen_ = true;
  }
  flush();
}

// Who comes while another sends leaves it to him, who looks again; and who finds the client behind is called again.
void Outbox::flush() {
  for (;;) {
    NSDictionary message;
    {
      MutexLock lock(mutex_);
      if (!isOpen_ || isSending_ || waiting_.empty() || !peer_->isWritable()) return;
      isSending_ = true;
      message = std::move(waiting_.front());
      waiting_.pop_front();
    }
    peer_->send(message, nullptr);
    MutexLock lock(mutex_);
    isSending_ = false;
  }
}

}  // namespace velto::calls
