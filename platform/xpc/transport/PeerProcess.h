#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <sys/types.h>

namespace velto::transport {

// The process at the other end of a connection, as the kernel tells it. A stream alone does not tell that a process has
// died: whoever still has a copy of its end, be it the kernel with a message that nobody has read, keeps it open.
//
// All connections of one living process share one object, and one descriptor that watches it for as long as anybody has
// a reference. A process that gets the number of a dead one is another object. Thread-safe. In the child of a fork the
// objects of the parent say nothing any more.
class PeerProcess final : public std::enable_shared_from_this<PeerProcess> {
 public:
  // Never null. Three kinds never die here, so that the stream alone tells: this process itself; one without a number
  // here (of another namespace, or the kernel does not say), which is another object each time, since two of them need
  // not be the same; and one that the kernel has nothing left to watch with. Watching that one is tried anew whenever
  // it is asked for again, for the sake of all who have it.
  static std::shared_ptr<PeerProcess> of(int borrowedSocket);
  // One that never dies here either: of a socket whose listener may have been passed on, so that the kernel may tell of
  // a process that only made it.
  static std::shared_ptr<PeerProcess> unwatched(int borrowedSocket);
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // 0 when it has none here. Once this process is dead, another one can have it.
  pid_t identifier() const noexcept { return identifier_; }
  // Its user when it was first met, as the kernel told; -1 when it did not.
  uid_t user() const noexcept { return user_; }
  // A descriptor of the process (a pidfd), lent for as long as there is a reference to this: of that very process,
  // whoever has its number by now. -1 when it has died, in the child of a fork, or when the kernel has none.
  int lendDescriptor();
  // No other object has it as long as this process lives; never 0.
  std::uint64_t number() const noexcept { return number_; }
  // Asks the kernel; so it may be true a moment before the handlers are called.
  bool isDead() const;

  // A handler's time, and a reference to its process. Nothing is called after it is destroyed or assigned to, but a
  // call that has begun may still be running; the handler may do both.
  class Subscription {
   public:
    Subscription() noexcept = default;
    Subscription(Subscription&& other) noexcept;
    Subscription& operator=(Subscription&& other) noexcept;
    ~Subscription();

   private:
    friend class PeerProcess;
    Subscription(std::shared_ptr<PeerProcess> process, std::uint64_t handler) noexcept;

    std::shared_ptr<PeerProcess> process_;
    std::uint64_t handler_ = 0;
  };
  // Calls `handler` once when the process is dead, soon when it already is: on a thread of the reactor, never on the
  // caller's stack. It must neither block nor run user code. What the process sent before it died may still be unread.
  Subscription onDeath(std::function<void()> handler);

 private:
  class Death;
  class Registry;

  PeerProcess(pid_t identifier, uid_t user);
  bool isInherited() const noexcept;

  const unsigned generation_;
  const pid_t identifier_;
  const uid_t user_;
  const std::uint64_t number_;
  const std::shared_ptr<Death> death_;
};

}  // namespace velto::transport
