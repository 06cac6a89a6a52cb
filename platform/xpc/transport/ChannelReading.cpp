// The half of a channel that reads. One thread does at a time: whoever finds something first, or a thread that waits
// for what comes and reads in place of the reactor.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/transport/Channel.h"
#include "platform/xpc/transport/DescriptorMessage.h"

namespace velto::transport {

namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10;
// Pause before the kernel is asked again to watch the socket, for which it had no memory.
constexpr std::chrono::milliseconds kWatchPause{10};
// Where so many frames come at once, more will.
constexpr std::size_t kManyFrames = 4;

// Frames that are delivered together. Needs no memory besides.
class FrameBatch {
 public:
  FrameBatch() = default;
  FrameBatch(const FrameBatch&) = delete;
  FrameBatch& operator=(const FrameBatch&) = delete;
  ~FrameBatch() { clear(); }

  // False when there are none.
  bool take(wire::FrameReader& reader) {
    while (count_ < kMost) {
      auto frame = reader.next();
      if (!frame) break;
      new (place(count_)) wire::Frame(std::move(*frame));
      ++count_;
    }
    return count_ > 0;
  }
  std::span<wire::Frame> frames() noexcept { return {std::launder(place(0)), count_}; }
  void clear() noexcept {
    std::destroy_n(place(0), count_);
    count_ = 0;
  }

 private:
  static constexpr std::size_t kMost = 16;

  wire::Frame* place(std::size_t index) noexcept { return reinterpret_cast<wire::Frame*>(bytes_) + index; }

  std::size_t count_ = 0;
  // Not initialised.
  alignas(wire::Frame) std::byte bytes_[kMost * sizeof(wire::Frame)];
};

}  // namespace

void Channel::peerDied() {
  endsWhenDrained_ = true;
  hungUp_ = true;
  read();
}

void Channel::readOn() {
  read();
}

void Channel::readFirst() {
  read();
}

void Channel::read() {
  if (readEvents_.fetch_add(1) == 0) return readPending();
  if (isInLine_ && Reactor::shared().laterTurns().takeOut(*this)) return takeTurn();
  MutexLock lock(mutex_);
  if (ownReader_ != nullptr) ownReader_->wakeUp();
}

void Channel::readPending() {
  std::uint32_t seen = 0;
  do {
    seen = readEvents_.load();
    if (readTurn() == Read::turnIsOver) {
      // Events that came meanwhile, and those that come until then, are in this one.
      readEvents_ = 1;
      isInLine_ = true;
      return Reactor::shared().laterTurns().add(shared_from_this());
    }
  } while (readEvents_.fetch_sub(seen) != seen);
}

void Channel::takeTurn() {
  isInLine_ = false;
  readPending();
}

bool Channel::remind() noexcept {
  MutexLock lock(mutex_);
  const bool hearsOfEnd = !endsWhenDrained_ && identifier_ != 0;
  return socket_ && hearsOfEnd && watchEvents();
}

bool Channel::takeReading(SleepingReader& reader) {
  std::uint32_t nobody = 0;
  if (!readEvents_.compare_exchange_strong(nobody, 1)) return false;
  {
    MutexLock lock(mutex_);
    if (socket_ && identifier_ != 0 && !hungUp_ && !holding_->mustWait()) {
      ownReader_ = &reader;
      watchEvents();
      return true;
    }
  }
  giveReadingUp();
  return false;
}

bool Channel::readOwn() {
  std::uint32_t seen = 0;
  do {
    seen = readEvents_.load();
    const Read result = readTurn();
    if (result == Read::turnIsOver) return true;
    if (result == Read::ended) return false;
    // But for the one by which reading is this thread's.
  } while (readEvents_.fetch_sub(seen - 1) != seen);
  return !hungUp_ && !holding_->mustWait();
}

system::SharedDescriptor Channel::mayAwait() {
  MutexLock lock(mutex_);
  return readEvents_.load() > 1 ? nullptr : socket_;
}

void Channel::giveReadingUp() {
  bool wasWatched = false;
  {
    MutexLock lock(mutex_);
    wasWatched = std::exchange(ownReader_, nullptr) == nullptr;
  }
  bool isWatched = true;
  try {
    if (!wasWatched) watchAgain();
  } catch (const std::bad_alloc&) {
    // The kernel has refused, and nobody can be reminded of it.
    isWatched = false;
    giveUp();
  }
  if (readEvents_.fetch_sub(1) != 1) return readPending();
  if (!isWatched) read();
}

void Channel::watchAgain() {
  MutexLock lock(mutex_);
  if (!socket_ || ownReader_ != nullptr || watchEvents()) return;
  Reactor::shared().timers().add(kWatchPause, [weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->watchAgain();
  });
}

Channel::Read Channel::readTurn() {
  Turn turn;
  Read result = Read::more;
  try {
    while (result == Read::more) result = turn.isOver() ? Read::turnIsOver : readOnce(turn);
  } catch (const std::exception& exception) {
    end(std::string("what arrives cannot be dealt with: ") + exception.what());
    return Read::ended;
  }
  if (turn.frames >= kManyFrames) Reactor::shared().foundMuch();
  stateInput();
  return result;
}

Channel::Read Channel::readOnce(Turn& turn) {
  system::SharedDescriptor socket;
  {
    MutexLock lock(mutex_);
    socket = socket_;
    if (place_) place_->heard();
  }
  if (!socket) return Read::ended;
  // What is left of a connection that is over is little, and must be read for its end to be found.
  if (holding_->mustWait() && !hungUp_) return Read::drained;
  // Of small frames few at once, so that the turn is short, but more where more come; of a large one as much as there
  // is.
  const auto whole = reader_.prepare(kReadBytes);
  const auto room = whole.first(std::min(whole.size(), std::max(readBytes_, reader_.missing())));
  Received received = receiveWithDescriptors(socket->get(), room);
  if (received.error == EAGAIN && !endsWhenDrained_) return drained();
  if (received.error != 0 && received.error != EAGAIN && received.error != ECONNRESET) {
    end(std::string("reading failed: ") + std::strerror(received.error));
    return Read::ended;
  }
  if (received.truncated) {
    end("descriptors were lost on the way: the other end sent too many, or this process can open no more");
    return Read::ended;
  }
  if (received.count == 0) {
    if (const int error = writeError_) {
      end(std::string("writing failed: ") + std::strerror(error));
    } else {
      end(reader_.hasPartialFrame() ? "the stream ended in the middle of a frame" : "");
    }
    return Read::ended;
  }
  const bool mayHaveMore = received.count == room.size() || !received.descriptors.empty() || hungUp_;
  // Those that are not kept are closed here, which may take the kernel its time, whatever they are.
  if (!received.descriptors.empty()) Reactor::shared().standIn();
  reader_.keepDescriptors(claimableDescriptors_);
  reader_.received(received.count, std::move(received.descriptors));
  turn.bytes += received.count;
  if (received.count == room.size()) {
    readBytes_ = std::min(2 * readBytes_, kReadBytes);
  } else if (received.count < readBytes_ / 4) {
    readBytes_ = std::max(readBytes_ / 2, kSmallReadBytes);
  }
  if (!deliverFrames(turn)) return Read::ended;
  return mayHaveMore ? Read::more : drained();
}

bool Channel::deliverFrames(Turn& turn) {
  for (FrameBatch batch; batch.take(reader_); batch.clear()) {
    turn.frames += batch.frames().size();
    const auto listener = receiver();
    if (!listener) return false;
    listener->framesArrived(batch.frames());
  }
  if (!reader_.failed()) return true;
  end(reader_.reason());
  return false;
}

// Nothing more is there just now.
Channel::Read Channel::drained() {
  if (lateFrame_ == reader_.framesTaken() + 1 && reader_.hasPartialFrame()) {
    end("a frame was begun more than " + std::to_string(limits::kUnfinishedFrame.count()) +
        " ms ago, which is the maximum, and is not finished");
    return Read::ended;
  }
  watchUnfinished();
  return Read::drained;
}

void Channel::watchUnfinished() {
  const std::uint64_t number = reader_.framesTaken() + 1;
  if (reader_.hasPartialFrame() && watchedFrame_ == number) return;
  if (watchedFrame_ != 0) Reactor::shared().timers().cancel(unfinishedTimer_);
  watchedFrame_ = reader_.hasPartialFrame() ? number : 0;
  if (watchedFrame_ == 0) return;
  unfinishedTimer_ = Reactor::shared().timers().add(limits::kUnfinishedFrame, [weak = weak_from_this(), number] {
    if (const auto channel = weak.lock()) channel->unfinishedIsLate(number);
  });
}

// It may lie in the socket by now: this process may have been stopped.
void Channel::unfinishedIsLate(std::uint64_t number) {
  if (holding_->mustWait()) return;
  lateFrame_ = number;
  read();
}

void Channel::stateInput() {
  reader_.rest();
  const std::size_t bytes = reader_.capacity();
  holding_->setBytes(Holding::Place::input, bytes > kReadBytes ? bytes : 0);
  holding_->setDescriptors(Holding::Place::input, reader_.heldDescriptors());
}

std::shared_ptr<ChannelReceiver> Channel::receiver() {
  MutexLock lock(mutex_);
  return receiver_;
}

void Channel::end(const std::string& reason) {
  std::shared_ptr<ChannelReceiver> listener;
  {
    MutexLock lock(mutex_);
    listener = close();
  }
  if (listener) listener->channelEnded(reason);
}

}  // namespace velto::transport
