#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <sys/uio.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/Holdings.h"
#include "platform/xpc/transport/LaterTurns.h"
#include "platform/xpc/transport/OutputQueue.h"
#include "platform/xpc/transport/PeerProcess.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/FrameReader.h"

namespace velto::transport {

// Hears what comes out of a channel. Called on the reactor's threads, one call at a time, and after channelEnded()
// never again. Calls no user code and never blocks.
class ChannelReceiver {
 public:
  virtual ~ChannelReceiver() = default;
  // In order; what they held may be taken out of them.
  virtual void framesArrived(std::span<wire::Frame> frames) = 0;
  // The stream is over: the other end closed it (then the reason is empty) or it broke (then the reason says how).
  virtual void channelEnded(const std::string& reason) = 0;
  // Everything that had to wait for room in the socket is written. May come during the other two, from any thread.
  virtual void outputDrained() = 0;
};

// What a channel's descriptor is counted as. Let go of with the socket.
class ChannelPlace {
 public:
  virtual ~ChannelPlace() = default;
  // Something has come from the other end.
  virtual void heard() noexcept = 0;
};

// Asleep, or about to be, until there is something to read.
class SleepingReader {
 public:
  // From any thread: it is to look again. Never waits.
  virtual void wakeUp() noexcept = 0;

 protected:
  ~SleepingReader() = default;
};

// A connected socket that carries frames both ways. A frame is written by the thread that sends it when the socket has
// room and nothing is queued before it, and in the background otherwise. If the sender says so it may be gathered
// first, and written together with what follows. Reading never waits for anybody, but it takes turns: after some frames
// others are read first. It rests only while the process holds too much (see Holding).
//
// Thread-safe.
class Channel final : public EventSource,
                      public TurnTaker,
                      public Aftermath,
                      public std::enable_shared_from_this<Channel> {
 public:
  // Whether a frame may wait for those that follow.
  enum class Haste : std::uint8_t {
    now,
    // The next is handed over at once.
    afterNext,
    // Somebody is about to flush.
    beforeFlush,
    // It is one of a burst, if others have just gone before it.
    inBurst,
  };

  // The receiver is held until the channel has ended. What the channel holds for it is stated there. It
  // need not have a place.
  Channel(system::Descriptor socket, std::shared_ptr<ChannelReceiver> receiver, std::shared_ptr<Holding> holding,
          std::shared_ptr<ChannelPlace> place);
  ~Channel() override;

  // Reads what has come by now, before start(), for a thread of the reactor.
  void readFirst();
  // Starts to read. False when the kernel has no room to watch the socket; then nothing more is ever received.
  bool start();

  // How many descriptors one frame that comes may carry for anybody here to claim; more are not kept.
  void setClaimableDescriptors(std::size_t most) noexcept { claimableDescriptors_ = most; }
  // When the process at the other end dies, the stream ends once what that has sent is read, even if its socket lives
  // on in other hands.
  void watch(PeerProcess& peer);
  // The process holds less again.
  void readOn();

  // Hands a frame over, behind all before it. Returns its number: frames are counted from 1.
  std::uint64_t send(wire::Frame frame, Haste haste = Haste::now);
  // Writes what is gathered.
  void flush() noexcept;
  void tasksPause() noexcept override { flush(); }
  // Frames written to the socket so far, whole.
  std::uint64_t framesWritten() const noexcept { return progress_.framesWritten.load(std::memory_order_acquire); }
  // Bytes that wait for room in the socket.
  std::size_t waitingBytes() const noexcept { return progress_.waitingBytes.load(std::memory_order_relaxed); }

  // For a thread that waits for what comes: it reads in place of the reactor until it gives that up, and the reactor
  // is not even woken. False when another thread reads, or this one need not.
  bool takeReading(SleepingReader& reader);
  // Reads all that is there. False when reading is better given up: the stream is over, or must rest.
  bool readOwn();
  // For who may sleep until there is something to read: the socket. Null when there may be something now.
  system::SharedDescriptor mayAwait();
  void giveReadingUp();

  // Closes the socket once everything handed over before is written.
  void finish();
  // Ends the stream, since something could not be sent for want of memory: both receivers hear of it. Needs none
  // itself.
  void giveUp() noexcept;
  // Closes the socket now. The receiver is not told.
  void abort();

  void eventsArrived(std::uint32_t events) override;
  void takeTurn() override;
  bool remind() noexcept override;

 private:
  using Clock = std::chrono::steady_clock;
  enum class Attempt { done, full, retry, broken };
  enum class Read { more, drained, turnIsOver, ended };
  // What has been read since others had their turn. It is over after about a millisecond of work; what was
  // read at once is dealt with whole.
  struct Turn {
    std::size_t frames = 0;
    std::size_t bytes = 0;

    bool isOver() const noexcept { return frames >= 64 || bytes >= std::size_t{512} << 10; }
  };

  // Reads unless another thread does, which then reads on.
  void read();
  void readPending();
  std::uint32_t watchedEvents() const VELTO_REQUIRES(mutex_);
  // False when the kernel refuses.
  bool watchEvents() VELTO_REQUIRES(mutex_);
  // Until it does not.
  void watchAgain();
  Read readTurn();
  Read readOnce(Turn& turn);
  // False when the stream is broken or nobody listens any more.
  bool deliverFrames(Turn& turn);
  Read drained();
  void end(const std::string& reason);
  // Sees to it that an unfinished frame is finished in time.
  void watchUnfinished();
  void peerDied();
  void unfinishedIsLate(std::uint64_t number);
  void stateInput();

  // Whether a frame is to wait for more.
  bool gathers(Haste haste, std::size_t bytes) VELTO_REQUIRES(mutex_);
  bool isBurst() VELTO_REQUIRES(mutex_);
  bool bringFlush(Clock::time_point now, Clock::duration patience) VELTO_REQUIRES(mutex_);
  bool setFlushTimer(Clock::duration delay) VELTO_REQUIRES(mutex_);
  void flushIsDue();
  void writeGathered() VELTO_REQUIRES(mutex_);
  void writeQueued() VELTO_REQUIRES(mutex_);
  void makeRoomFor(std::size_t bytes) VELTO_REQUIRES(mutex_);
  void stateOutput() VELTO_REQUIRES(mutex_);
  Attempt writeOnce() VELTO_REQUIRES(mutex_);
  void giveUpWriting() VELTO_REQUIRES(mutex_);
  // Whoever waits for the end is told by the reading half, even if the kernel does not.
  void endSoon() VELTO_REQUIRES(mutex_);
  void watchForRoom(bool wanted, bool anew) VELTO_REQUIRES(mutex_);
  void retryLater() VELTO_REQUIRES(mutex_);
  void roomArrived();
  // Closes the socket; returns the receiver, to be let go of outside the lock.
  std::shared_ptr<ChannelReceiver> close() VELTO_REQUIRES(mutex_);
  std::shared_ptr<ChannelReceiver> closeIfFinished() VELTO_REQUIRES(mutex_);
  std::shared_ptr<ChannelReceiver> receiver();

  // Events not yet acted upon. Whoever raises it from 0 reads until it is 0 again, so that one thread reads at a time;
  // it stays over 0 while another turn is waited for.
  std::atomic<std::uint32_t> readEvents_{0};
  std::atomic<bool> isInLine_{false};
  std::atomic<bool> hungUp_{false};
  // Why writing has failed; 0 when it has not, or only because the other end is gone.
  std::atomic<int> writeError_{0};
  // The kernel will not say that the stream is over: it is once nothing is left to read.
  std::atomic<bool> endsWhenDrained_{false};
  std::atomic<std::size_t> claimableDescriptors_{limits::kMaximumDescriptors};
  const std::shared_ptr<Holding> holding_;
  OutputProgress progress_;

  // Of the thread that reads.
  wire::FrameReader reader_;
  // Read at once, unless a frame lacks more.
  static constexpr std::size_t kSmallReadBytes = std::size_t{8} << 10;
  std::size_t readBytes_ = kSmallReadBytes;
  TimerQueue::Identifier unfinishedTimer_ = 0;
  std::uint64_t watchedFrame_ = 0;
  // The number of the frame that is late, counted from 1; 0 when none is.
  std::atomic<std::uint64_t> lateFrame_{0};

  Mutex mutex_;
  // Shared with the thread that reads, so that the number is not given out anew while it does.
  system::SharedDescriptor socket_ VELTO_GUARDED_BY(mutex_);
  Reactor::Identifier identifier_ VELTO_GUARDED_BY(mutex_) = 0;
  std::shared_ptr<ChannelReceiver> receiver_ VELTO_GUARDED_BY(mutex_);
  OutputQueue output_ VELTO_GUARDED_BY(mutex_){progress_};
  bool hasLargeBuffer_ VELTO_GUARDED_BY(mutex_) = false;
  bool watchesForRoom_ VELTO_GUARDED_BY(mutex_) = false;
  // Reads in place of the reactor.
  SleepingReader* ownReader_ VELTO_GUARDED_BY(mutex_) = nullptr;
  // What is queued has not been tried to write, and is to be written by then, for which a timer may be set; or with the
  // next frame.
  bool gathers_ VELTO_GUARDED_BY(mutex_) = false;
  static constexpr Clock::time_point kNoTime = Clock::time_point::max();
  Clock::time_point flushDue_ VELTO_GUARDED_BY(mutex_) = kNoTime;
  Clock::time_point flushTimer_ VELTO_GUARDED_BY(mutex_) = kNoTime;
  // Frames that came one soon after the other.
  Clock::time_point lastOfBurst_ VELTO_GUARDED_BY(mutex_);
  unsigned burst_ VELTO_GUARDED_BY(mutex_) = 0;
  bool finishing_ VELTO_GUARDED_BY(mutex_) = false;
  bool outputBroken_ VELTO_GUARDED_BY(mutex_) = false;
  std::shared_ptr<ChannelPlace> place_ VELTO_GUARDED_BY(mutex_);
  PeerProcess::Subscription peerDeath_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t sent_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::transport
