// Reading and writing of one channel are two halves that share only the socket. An end of the stream is always found by
// the reading half, after everything that arrived before it: a write that fails because the other end is gone must not
// hide the goodbye that still lies in the socket.

#include "platform/xpc/transport/Channel.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/DescriptorMessage.h"
#include "platform/xpc/transport/Gathering.h"

namespace velto::transport {

namespace {

constexpr std::uint32_t kInput = EPOLLIN | EPOLLRDHUP;
constexpr std::uint32_t kHangUp = EPOLLRDHUP | EPOLLHUP | EPOLLERR;
// Outputs gathered into one write.
constexpr std::size_t kGatheredOutputs = 32;
// What may wait for more, and how long: when somebody is about to flush, and when nobody is.
constexpr std::size_t kGatheredBytes = std::size_t{16} << 10;
constexpr std::chrono::microseconds kFlushPatience{500};
constexpr std::chrono::microseconds kBurstPatience{50};
// Frames that follow each other so closely are a burst, once there are so many. What comes after a pause goes at once;
// if that was short, the burst goes on behind it.
constexpr std::chrono::microseconds kBurstPause{20};
constexpr std::chrono::microseconds kLongPause{1'000};
constexpr unsigned kBurstFrames = 8;
// Pause before a write is tried again that the kernel had no memory for, or no room for descriptors on their way.
constexpr std::chrono::milliseconds kRetryPause{10};
// A frame from this size on does not fit into the socket's buffer as the kernel makes it.
constexpr std::size_t kLargeBytes = std::size_t{128} << 10;
// Writes before others have their turn.
constexpr unsigned kTurnWrites = 16;

bool isPassing(int error) {
  return error == ENOBUFS || error == ENOMEM || error == ETOOMANYREFS;
}

bool meansGone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

}  // namespace

Channel::Channel(system::Descriptor socket, std::shared_ptr<ChannelReceiver> receiver, std::shared_ptr<Holding> holding,
                 std::shared_ptr<ChannelPlace> place)
    : holding_(std::move(holding)),
      socket_(std::make_shared<const system::Descriptor>(std::move(socket))),
      receiver_(std::move(receiver)),
      place_(std::move(place)) {}

Channel::~Channel() {
  holding_->setBytes(Holding::Place::input, 0);
  holding_->setDescriptors(Holding::Place::input, 0);
}

bool Channel::start() {
  MutexLock lock(mutex_);
  // Whoever sent before this may have closed it, or filled it.
  if (!socket_) return true;
  identifier_ = Reactor::shared().add(socket_->get(), watchedEvents(), shared_from_this());
  return identifier_ != 0;
}

std::uint64_t Channel::send(wire::Frame frame, Haste haste) {
  MutexLock lock(mutex_);
  const std::uint64_t number = ++sent_;
  if (!socket_ || outputBroken_ || finishing_) return number;
  const bool waitsForRoom = !output_.isEmpty() && !gathers_;
  const bool waits = waitsForRoom || gathers(haste, frame.size());
  makeRoomFor(frame.size());
  try {
    output_.add(std::move(frame), waits || gathers_);
  } catch (const std::bad_alloc&) {
    gathers_ = gathers_ && !output_.isEmpty();
    throw;
  }
  // The process may have begun to end meanwhile.
  if (!waits || (gathers_ && !Gathering::isAllowed())) writeQueued();
  // What writing took is none of the sender's pause.
  if (!waits && haste == Haste::inBurst) lastOfBurst_ = Clock::now();
  stateOutput();
  return number;
}

bool Channel::gathers(Haste haste, std::size_t bytes) {
  if (haste == Haste::now) return false;
  if (haste == Haste::inBurst && !isBurst()) return false;
  if (progress_.waitingBytes + bytes > kGatheredBytes || !Gathering::isAllowed()) return false;
  if (haste == Haste::afterNext) {
    if (!gathers_) flushDue_ = kNoTime;
    return gathers_ = true;
  }
  if (haste == Haste::inBurst) return bringFlush(lastOfBurst_, kBurstPatience);
  // Whoever has set a time is as hasty.
  return (gathers_ && flushDue_ != kNoTime) || bringFlush(Clock::now(), kFlushPatience);
}

bool Channel::isBurst() {
  const auto now = Clock::now();
  const auto pause = now - std::exchange(lastOfBurst_, now);
  if (pause >= kBurstPause) {
    burst_ = pause < kLongPause ? burst_ / 2 : 0;
    return false;
  }
  burst_ = std::min(burst_ + 1, 2 * kBurstFrames);
  return burst_ >= kBurstFrames;
}

bool Channel::bringFlush(Clock::time_point now, Clock::duration patience) {
  const auto due = now + patience;
  flushDue_ = gathers_ ? std::min(flushDue_, due) : due;
  gathers_ = true;
  if (flushTimer_ <= flushDue_ || setFlushTimer(patience)) return true;
  gathers_ = false;
  return false;
}

// False when there is no memory.
bool Channel::setFlushTimer(Clock::duration delay) {
  try {
    system::perProcess<Gathering>().add(*this);
    Reactor::shared().timers().add(delay, [weak = weak_from_this()] {
      if (const auto channel = weak.lock()) channel->flushIsDue();
    });
  } catch (const std::bad_alloc&) {
    return false;
  }
  flushTimer_ = flushDue_;
  return true;
}

// The timer stays as long as it finds something: it is set once for many frames.
void Channel::flushIsDue() {
  MutexLock lock(mutex_);
  flushTimer_ = kNoTime;
  const auto now = Clock::now();
  if (gathers_ && flushDue_ != kNoTime && flushDue_ > now && setFlushTimer(flushDue_ - now)) return;
  writeGathered();
  system::perProcess<Gathering>().remove(*this);
}

void Channel::flush() noexcept {
  MutexLock lock(mutex_);
  writeGathered();
}

void Channel::writeGathered() {
  gathers_ = gathers_ && socket_ && !output_.isEmpty();
  if (!gathers_) return;
  writeQueued();
  stateOutput();
}

// Without it everything arrives as well, only later.
void Channel::makeRoomFor(std::size_t bytes) {
  if (hasLargeBuffer_ || bytes < kLargeBytes) return;
  hasLargeBuffer_ = true;
  system::systemCalls().setSendBuffer(socket_->get(), limits::kLargeSendBufferBytes);
}

void Channel::finish() {
  std::shared_ptr<ChannelReceiver> released;
  MutexLock lock(mutex_);
  writeGathered();
  finishing_ = true;
  released = closeIfFinished();
}

void Channel::abort() {
  std::shared_ptr<ChannelReceiver> released;
  MutexLock lock(mutex_);
  // As if it had been written when it was handed over.
  writeGathered();
  released = close();
}

std::shared_ptr<ChannelReceiver> Channel::closeIfFinished() {
  if (!finishing_ || !output_.isEmpty()) return nullptr;
  return close();
}

std::shared_ptr<ChannelReceiver> Channel::close() {
  if (socket_ && identifier_ != 0) Reactor::shared().forget(identifier_);
  if (isInLine_) Reactor::shared().laterTurns().takeOut(*this);
  socket_.reset();
  place_.reset();
  output_.clear();
  gathers_ = false;
  stateOutput();
  return std::exchange(receiver_, nullptr);
}

void Channel::eventsArrived(std::uint32_t events) {
  if ((events & kHangUp) != 0) hungUp_ = true;
  if ((events & (kInput | kHangUp)) != 0) read();
  if ((events & EPOLLOUT) != 0) roomArrived();
}

std::uint32_t Channel::watchedEvents() const {
  const std::uint32_t input = ownReader_ == nullptr ? kInput : 0;
  return watchesForRoom_ ? input | EPOLLOUT : input;
}

bool Channel::watchEvents() {
  return Reactor::shared().changeEvents(identifier_, socket_->get(), watchedEvents());
}

void Channel::watch(PeerProcess& peer) {
  auto death = peer.onDeath([weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->peerDied();
  });
  MutexLock lock(mutex_);
  peerDeath_ = std::move(death);
}

// Room for what is kept about each frame, of which small ones take the most for their bytes.
void Channel::stateOutput() {
  holding_->setBytes(Holding::Place::output, 4 * progress_.waitingBytes + output_.waitingRegions());
}

void Channel::writeQueued() {
  gathers_ = false;
  Attempt attempt = Attempt::done;
  unsigned writes = 0;
  while (!output_.isEmpty() && attempt == Attempt::done && writes++ < kTurnWrites) attempt = writeOnce();
  if (attempt == Attempt::broken) giveUpWriting();
  try {
    if (attempt == Attempt::retry) retryLater();
    // The kernel is asked anew when there may be room still: it tells so behind all others that it has something to
    // tell of.
    const bool turnIsOver = !output_.isEmpty() && attempt == Attempt::done;
    watchForRoom(turnIsOver || attempt == Attempt::full, turnIsOver);
  } catch (const std::bad_alloc&) {
    // Nobody can be reminded of the rest.
    writeError_ = ENOMEM;
    giveUpWriting();
  }
}

Channel::Attempt Channel::writeOnce() {
  std::array<iovec, 2 * kGatheredOutputs> room;
  const ssize_t written = sendWithDescriptors(socket_->get(), output_.gather(room), output_.descriptors());
  if (written >= 0) {
    output_.wrote(static_cast<std::size_t>(written));
    return Attempt::done;
  }
  if (errno == EAGAIN) return Attempt::full;
  if (isPassing(errno)) return Attempt::retry;
  if (!meansGone(errno)) writeError_ = errno;
  return Attempt::broken;
}

void Channel::giveUpWriting() {
  outputBroken_ = true;
  gathers_ = false;
  output_.clear();
  stateOutput();
  // What has arrived can still be read; after it comes the end, even from an end that only stopped reading.
  if (system::systemCalls().shutdown(socket_->get()) != 0) endSoon();
}

void Channel::giveUp() noexcept {
  MutexLock lock(mutex_);
  if (!socket_) return;
  writeError_ = ENOMEM;
  giveUpWriting();
}

void Channel::endSoon() {
  endsWhenDrained_ = true;
  try {
    Reactor::shared().timers().add({}, [weak = weak_from_this()] {
      if (const auto channel = weak.lock()) channel->eventsArrived(EPOLLHUP);
    });
  } catch (const std::bad_alloc&) {
    // Whatever comes next ends it.
  }
}

void Channel::watchForRoom(bool wanted, bool anew) {
  if (watchesForRoom_ == wanted && !anew) return;
  watchesForRoom_ = wanted;
  if (identifier_ == 0 || watchEvents()) return;
  watchesForRoom_ = !wanted;
  if (wanted) retryLater();
}

void Channel::retryLater() {
  Reactor::shared().timers().add(kRetryPause, [weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->roomArrived();
  });
}

void Channel::roomArrived() {
  std::shared_ptr<ChannelReceiver> listener;
  std::shared_ptr<ChannelReceiver> released;
  {
    MutexLock lock(mutex_);
    if (!socket_ || output_.isEmpty()) return;
    writeQueued();
    stateOutput();
    if (!output_.isEmpty()) return;
    listener = receiver_;
    released = closeIfFinished();
  }
  if (listener) listener->outputDrained();
}

}  // namespace velto::transport
