// Callbacks come on threads of the library; the program waits on its own. What they share has a lock.

#include "examples/machine/ClientEvents.h"

#include <algorithm>
#include <chrono>

#include <unistd.h>

namespace machine {

bool ClientEvents::waitForError(const std::string& text, double seconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [this, &text] { return std::find(errors_.begin(), errors_.end(), text) != errors_.end(); });
}

bool ClientEvents::wasAsked() {
  const std::lock_guard lock(mutex_);
  return wasAsked_;
}

void ClientEvents::connectionReady(NSString connectionID) {
  transcript_.say(NSString::stringWithFormat("ready on connection %@", connectionID));
}

void ClientEvents::receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) {
  transcript_.say(NSString::stringWithFormat("the listener asks for my %@: %d", message["question"], getpid()));
  {
    const std::lock_guard lock(mutex_);
    wasAsked_ = true;
  }
  usingHandler({{"number", getpid()}});
}

void ClientEvents::connectionError(NSString, NSError error) {
  transcript_.say(NSString::stringWithFormat("hears: %@", error.localizedDescription()));
  const std::lock_guard lock(mutex_);
  errors_.push_back(error.localizedDescription().string());
  changed_.notify_all();
}

}  // namespace machine
