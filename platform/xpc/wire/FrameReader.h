#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/Fifo.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::wire {

// Cuts a stream of bytes, and the descriptors that came with them, into frames. Pure: it makes no system call and knows
// no socket. Memory grows with the bytes that have arrived, never with a length that was only declared.
//
// Descriptors arrive in the order of the frames that carry them, but the kernel does not say at which byte. So they are
// kept in order and each complete frame takes the number that it declares; too few or too many break the protocol. A
// sender therefore attaches the descriptors of a frame to its first byte, never earlier.
class FrameReader {
 public:
  FrameReader() = default;
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Where the next bytes go: at least `wanted` bytes of room, 64 KiB when nothing is held. Commit what was written with
  // received(). Raises std::bad_alloc, and changes nothing, when there is no memory.
  std::span<std::uint8_t> prepare(std::size_t wanted);
  // `count` bytes were written into the room, and these descriptors came along.
  void received(std::size_t count, std::vector<system::SharedDescriptor> descriptors);

  // How many descriptors an unfinished frame may make this hold; what comes beyond them is closed at once and only
  // counted, so that its frame holds an empty place for it. At first as many as a frame may carry. A frame with regions
  // may have theirs besides.
  void keepDescriptors(std::size_t most) noexcept { keptDescriptors_ = most; }
  // The next complete frame, or nothing: then failed() tells whether the stream is broken or just not there yet. To be
  // called until it gives nothing, after each received().
  std::optional<Frame> next();
  bool failed() const noexcept { return !reason_.empty(); }
  // Why it is broken, naming limit, value and maximum.
  const std::string& reason() const noexcept { return reason_; }
  // Whether bytes or descriptors of an unfinished frame are held.
  bool hasPartialFrame() const noexcept { return held() > 0 || !descriptors_.empty(); }
  // Bytes that the unfinished frame still lacks, as far as is known.
  std::size_t missing() const noexcept { return missing_; }
  // Nothing more is there just now: lets go of the room that what is held does not need.
  void rest() noexcept;
  // Bytes of memory held for the stream.
  std::size_t capacity() const noexcept { return buffer_.capacity(); }
  // Descriptors held for the unfinished frame.
  std::size_t heldDescriptors() const noexcept {
    return descriptors_.size() -
           static_cast<std::size_t>(std::count(descriptors_.begin(), descriptors_.end(), nullptr));
  }
  // Frames that were complete so far.
  std::uint64_t framesTaken() const noexcept { return framesTaken_; }

 private:
  std::size_t held() const noexcept { return end_ - begin_; }
  // True when there is room that the thread has left over.
  bool takeSpareRoom(std::size_t wanted) noexcept;
  const std::uint8_t* start() const noexcept { return buffer_.data() + begin_; }
  void compact() noexcept;
  void consume(std::size_t count) noexcept;
  Frame takeFrame(const FrameHeader& header);
  ByteBuffer takeBody(std::size_t length);
  ByteBuffer giveAway(std::size_t length);
  // Of a frame whose header is known.
  void dropUnclaimable(const FrameHeader& header) noexcept;
  // No more descriptors than the frame at the end may still claim.
  void checkDescriptors(std::size_t claimable);
  void fail(std::string reason);

  // Its memory; what it holds lies between the two.
  ByteBuffer buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  // What the unfinished frame at the end still lacks, as far as its header says.
  std::size_t missing_ = 0;
  Fifo<system::SharedDescriptor> descriptors_;
  std::size_t keptDescriptors_ = limits::kMaximumDescriptors;
  std::uint64_t framesTaken_ = 0;
  std::string reason_;
};

}  // namespace velto::wire
