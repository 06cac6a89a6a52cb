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
// A frame of up to so many bytes is copied to those before it that wait, which is less work than a piece more to
// gather; as long as these come to less than that.
constexpr std::size_t kSmallFrame = std::size_t{2} << 10;
constexpr std::size_t kBatchBytes = std::size_t{16} << 10;
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
constexpr std::size_t kReadBytes = std::size_t{64} << 10;
// A frame from this size on does not fit into the socket's buffer as the kernel makes it.
constexpr std::size_t kLargeBytes = std::size_t{128} << 10;
// Where so many frames come at once, more will.
constexpr std::size_t kManyFrames = 4;
// Writes before others have their turn.
constexpr unsigned kTurnWrites = 16;

bool isPassing(int error) {
  return error == ENOBUFS || error == ENOMEM || error == ETOOMANYREFS;
}

bool meansGone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

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

bool carriesMessage(const wire::Frame& frame) noexcept {
  return frame.type == wire::FrameType::call || frame.type == wire::FrameType::reply;
}

std::size_t regionsOfCall(const wire::Frame& frame) noexcept {
  return frame.type == wire::FrameType::call ? frame.regionWeight() : 0;
}

}  // namespace

Channel::Channel(system::Descriptor socket, std::shared_ptr<ChannelReceiver> receiver, std::shared_ptr<Holding> holding,
                 std::shared_ptr<ChannelPlace> place)
    : holding_(std::move(holding)),
      traffic_(place ? place->traffic : nullptr),
      socket_(std::make_shared<const system::Descriptor>(std::move(socket))),
      receiver_(std::move(receiver)),
      place_(std::move(place)) {
  if (traffic_) traffic_->open(holding_);
}

Channel::~Channel() {
  holding_->setBytes(Holding::Place::input, 0);
  holding_->setDescriptors(Holding::Place::input, 0);
}

bool Channel::Output::gather(std::span<iovec> parts, std::size_t& count) const noexcept {
  std::size_t written = size() - remaining;
  const auto add = [&](std::span<const std::uint8_t> piece) {
    const std::size_t skipped = std::min(written, piece.size());
    written -= skipped;
    if (skipped == piece.size()) return true;
    if (count == parts.size()) return false;
    parts[count++] = {const_cast<std::uint8_t*>(piece.data() + skipped), piece.size() - skipped};
    return true;
  };
  const std::span<const std::uint8_t> body(frame.body);
  std::size_t position = 0;
  if (!add(std::span(header).first(headerBytes))) return false;
  for (const wire::Enclosure& each : frame.enclosures) {
    if (!add(body.subspan(position, each.position - position)) || !add(each.bytes)) return false;
    position = each.position;
  }
  return add(body.subspan(position));
}

std::size_t Channel::Output::consume(std::size_t count) noexcept {
  remaining -= count;
  if (!isBatch()) return remaining == 0 ? 1 : 0;
  std::size_t whole = 0;
  const std::size_t written = frame.body.size() - remaining;
  while (boundary <= written) {
    ++whole;
    if (boundary == frame.body.size()) break;
    boundary += wire::FrameHeader::kBytes + wire::FrameHeader::bodyLengthIn(frame.body.data() + boundary);
  }
  return whole;
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
  const bool waitsForRoom = !output_.empty() && !gathers_;
  const bool waits = waitsForRoom || gathers(haste, frame.size());
  makeRoomFor(frame.size());
  const std::size_t bytes = wire::FrameHeader::kBytes + frame.size();
  const bool isMessage = carriesMessage(frame);
  try {
    enqueue(std::move(frame), waits || gathers_);
  } catch (const std::bad_alloc&) {
    gathers_ = gathers_ && !output_.empty();
    throw;
  }
  if (traffic_) traffic_->sent(isMessage ? 1 : 0, bytes);
  // The process may have begun to end meanwhile.
  if (!waits || (gathers_ && !Gathering::isAllowed())) writeQueued();
  // What writing took is none of the sender's pause.
  if (!waits && haste == Haste::inBurst) lastOfBurst_ = Clock::now();
  stateOutput();
  return number;
}

void Channel::enqueue(wire::Frame&& frame, bool mayBatch) {
  const std::size_t size = frame.size();
  const auto header = wire::FrameHeader{static_cast<std::uint32_t>(size), frame.type,
                                        static_cast<std::uint16_t>(frame.descriptors.size()), frame.regions}
                          .encode();
  const std::size_t all = header.size() + size;
  if (mayBatch && all <= kSmallFrame && frame.enclosures.empty() && frame.descriptors.empty()) {
    addToBatch(header, frame);
  } else {
    Output added;
    added.header = header;
    added.headerBytes = header.size();
    added.frame = std::move(frame);
    added.remaining = all;
    // What waits takes no more memory than it needs: encoding leaves as much again unused.
    if (mayBatch) added.frame.body.releaseUnused();
    const std::size_t regions = regionsOfCall(added.frame);
    output_.push_back(std::move(added));
    waitingRegions_ += regions;
  }
  waitingBytes_ += all;
}

void Channel::addToBatch(std::span<const std::uint8_t> header, const wire::Frame& frame) {
  const std::size_t all = header.size() + frame.body.size();
  if (output_.empty() || !output_.back().isBatch() || output_.back().frame.body.size() + all > kBatchBytes) {
    if (!output_.empty()) output_.back().frame.body.releaseUnused();
    output_.emplace_back().boundary = all;
  }
  Output& batch = output_.back();
  wire::ByteBuffer& bytes = batch.frame.body;
  const std::size_t needed = bytes.size() + all;
  try {
    if (bytes.capacity() < needed) bytes.reserve(std::max(2 * bytes.size(), needed));
  } catch (const std::bad_alloc&) {
    if (bytes.empty()) output_.pop_back();
    throw;
  }
  bytes.append(header);
  bytes.append(frame.body);
  batch.remaining += all;
}

bool Channel::gathers(Haste haste, std::size_t bytes) {
  if (haste == Haste::now) return false;
  if (haste == Haste::inBurst && !isBurst()) return false;
  if (waitingBytes_ + bytes > kGatheredBytes || !Gathering::isAllowed()) return false;
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
  gathers_ = gathers_ && socket_ && !output_.empty();
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
  if (!finishing_ || !output_.empty()) return nullptr;
  return close();
}

std::shared_ptr<ChannelReceiver> Channel::close() {
  if (socket_ && identifier_ != 0) Reactor::shared().forget(identifier_);
  socket_.reset();
  if (traffic_) traffic_->close();
  place_.reset();
  output_.clear();
  gathers_ = false;
  waitingBytes_ = 0;
  waitingRegions_ = 0;
  stateOutput();
  return std::exchange(receiver_, nullptr);
}

std::shared_ptr<ChannelReceiver> Channel::receiver() {
  MutexLock lock(mutex_);
  return receiver_;
}

void Channel::eventsArrived(std::uint32_t events) {
  if ((events & kHangUp) != 0) hungUp_ = true;
  if ((events & (kInput | kHangUp)) != 0) read();
  if ((events & EPOLLOUT) != 0) roomArrived();
}

void Channel::watch(PeerProcess& peer) {
  auto death = peer.onDeath([weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->peerDied();
  });
  MutexLock lock(mutex_);
  peerDeath_ = std::move(death);
}

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
  MutexLock lock(mutex_);
  if (ownReader_ != nullptr) ownReader_->wakeUp();
}

void Channel::readPending() {
  std::uint32_t seen = 0;
  do {
    seen = readEvents_.load();
    if (readTurn() == Read::turnIsOver) {
      // Events that came meanwhile are in this one.
      readEvents_ = 0;
      return readAgainSoon();
    }
  } while (readEvents_.fetch_sub(seen) != seen);
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
  Reactor::shared().timers().add(kRetryPause, [weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->watchAgain();
  });
}

std::uint32_t Channel::watchedEvents() const {
  const std::uint32_t input = ownReader_ == nullptr ? kInput : 0;
  return watchesForRoom_ ? input | EPOLLOUT : input;
}

bool Channel::watchEvents() {
  return Reactor::shared().changeEvents(identifier_, socket_->get(), watchedEvents());
}

// The kernel tells of the socket again, behind all others that have something to read.
void Channel::readAgainSoon() {
  {
    MutexLock lock(mutex_);
    if (!socket_) return;
    const bool hearsOfEnd = !endsWhenDrained_ && identifier_ != 0;
    if (hearsOfEnd && watchEvents()) return;
  }
  Reactor::shared().timers().add({}, [weak = weak_from_this()] {
    if (const auto channel = weak.lock()) channel->read();
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

void Channel::count(std::span<const wire::Frame> frames) noexcept {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  for (const wire::Frame& frame : frames) {
    messages += carriesMessage(frame) ? 1 : 0;
    bytes += wire::FrameHeader::kBytes + frame.size();
  }
  traffic_->received(messages, bytes);
}

bool Channel::deliverFrames(Turn& turn) {
  for (FrameBatch batch; batch.take(reader_); batch.clear()) {
    turn.frames += batch.frames().size();
    if (traffic_) count(batch.frames());
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

// Room for what is kept about each frame, of which small ones take the most for their bytes.
void Channel::stateOutput() {
  holding_->setBytes(Holding::Place::output, 4 * waitingBytes_ + waitingRegions_);
}

void Channel::end(const std::string& reason) {
  std::shared_ptr<ChannelReceiver> listener;
  {
    MutexLock lock(mutex_);
    listener = close();
  }
  if (listener) listener->channelEnded(reason);
}

void Channel::writeQueued() {
  gathers_ = false;
  Attempt attempt = Attempt::done;
  unsigned writes = 0;
  while (!output_.empty() && attempt == Attempt::done && writes++ < kTurnWrites) attempt = writeOnce();
  if (attempt == Attempt::broken) giveUpWriting();
  try {
    if (attempt == Attempt::retry) retryLater();
    // The kernel is asked anew when there may be room still: it tells so behind all others that it has something to
    // tell of.
    const bool turnIsOver = !output_.empty() && attempt == Attempt::done;
    watchForRoom(turnIsOver || attempt == Attempt::full, turnIsOver);
  } catch (const std::bad_alloc&) {
    // Nobody can be reminded of the rest.
    writeError_ = ENOMEM;
    giveUpWriting();
  }
}

Channel::Attempt Channel::writeOnce() {
  std::array<iovec, 2 * kGatheredOutputs> parts;
  std::size_t count = 0;
  const Output& first = output_.front();
  for (const Output& output : output_) {
    // Descriptors go with the first byte of a write: a frame that carries some must begin one.
    if (&output != &first && !output.frame.descriptors.empty()) break;
    if (!output.gather(parts, count)) break;
  }
  const bool isBegun = first.remaining < first.size();
  const auto& descriptors = isBegun ? std::vector<system::SharedDescriptor>() : first.frame.descriptors;
  const ssize_t written = sendWithDescriptors(socket_->get(), {parts.data(), count}, descriptors);
  if (written >= 0) {
    consume(static_cast<std::size_t>(written));
    return Attempt::done;
  }
  if (errno == EAGAIN) return Attempt::full;
  if (isPassing(errno)) return Attempt::retry;
  if (!meansGone(errno)) writeError_ = errno;
  return Attempt::broken;
}

void Channel::consume(std::size_t count) {
  waitingBytes_ -= count;
  while (!output_.empty()) {
    Output& first = output_.front();
    const std::size_t part = std::min(count, first.remaining);
    count -= part;
    written_.fetch_add(first.consume(part), std::memory_order_release);
    if (first.remaining > 0) return;
    waitingRegions_ -= regionsOfCall(first.frame);
    output_.pop_front();
  }
}

void Channel::giveUpWriting() {
  outputBroken_ = true;
  gathers_ = false;
  output_.clear();
  waitingBytes_ = 0;
  waitingRegions_ = 0;
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
    if (!socket_ || output_.empty()) return;
    writeQueued();
    stateOutput();
    if (!output_.empty()) return;
    listener = receiver_;
    released = closeIfFinished();
  }
  if (listener) listener->outputDrained();
}

}  // namespace velto::transport
