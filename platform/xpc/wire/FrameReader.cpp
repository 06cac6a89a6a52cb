// One buffer for the stream. Small frames are read many at a time; for a large one the buffer doubles as its bytes
// arrive, up to its end, and then becomes the frame's, which so stays where it was read to. The memory is not
// initialised: what gets small frames touches one page of its room.
//
// A stream that rests has no room. The room goes from one to the next on the thread that reads, so that thousands of
// connections that are idle hold none, and none is to be had from the allocator for each that is not.

#include "platform/xpc/wire/FrameReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// What is asked of the socket at once. Larger reads save no time worth their memory.
constexpr std::size_t kRoomBytes = std::size_t{64} << 10;
// An empty buffer above this is given back.
constexpr std::size_t kKeptBytes = 2 * kRoomBytes;
// A frame from this size on stays where it was read to, if it fills most of that; a smaller one is copied in less time
// than new room for the next takes to be had.
constexpr std::size_t kStayingBytes = kRoomBytes;

// What is unfinished and smaller than this moves to memory of its own size while its stream rests.
constexpr std::size_t kMovedBytes = std::size_t{8} << 10;

// Room that no stream on this thread uses just now. What ends with the thread may still read after it is gone.
constinit thread_local bool spareRoomIsGone = false;
struct SpareRoom {
  ~SpareRoom() { spareRoomIsGone = true; }

  ByteBuffer room;
};
thread_local SpareRoom spare;

std::size_t roundUp(std::size_t bytes) {
  return (bytes + kRoomBytes - 1) / kRoomBytes * kRoomBytes;
}

}  // namespace

std::span<std::uint8_t> FrameReader::prepare(std::size_t wanted) {
  wanted = std::max<std::size_t>(wanted, 1);
  if (capacity() - end_ < wanted) {
    // As much again as has arrived, so that a large frame is moved a bounded number of times, but not past its end.
    const std::size_t target = held() + std::max(wanted, std::min(missing_, held()));
    if (target > capacity() && !takeSpareRoom(target)) buffer_.reserve(roundUp(target));
    compact();
  }
  return {buffer_.data() + end_, capacity() - end_};
}

bool FrameReader::takeSpareRoom(std::size_t wanted) noexcept {
  if (spareRoomIsGone || spare.room.capacity() < wanted) return false;
  std::swap(buffer_, spare.room);
  if (held() > 0) std::memcpy(buffer_.data(), spare.room.data() + begin_, held());
  spare.room = ByteBuffer();
  end_ = held();
  begin_ = 0;
  return true;
}

void FrameReader::rest() noexcept {
  if (capacity() == 0 || held() > kMovedBytes) return;
  ByteBuffer kept;
  if (held() > 0) {
    if (capacity() < kRoomBytes) return;
    try {
      kept = ByteBuffer(std::span(start(), held()));
    } catch (const std::bad_alloc&) {
      return;
    }
  }
  end_ = held();
  begin_ = 0;
  std::swap(buffer_, kept);
  if (kept.capacity() <= kKeptBytes && kept.capacity() >= kRoomBytes && !spareRoomIsGone) spare.room = std::move(kept);
}

void FrameReader::received(std::size_t count, std::vector<system::SharedDescriptor> descriptors) {
  if (failed()) return;
  end_ += count;
  for (system::SharedDescriptor& descriptor : descriptors) {
    const bool kept = descriptors_.size() < keptDescriptors_ + limits::kMaximumRegions;
    descriptors_.push_back(kept ? std::move(descriptor) : nullptr);
  }
}

std::optional<Frame> FrameReader::next() {
  if (failed()) return std::nullopt;
  missing_ = 0;
  if (held() < FrameHeader::kBytes) {
    checkDescriptors(held() > 0 ? limits::kMaximumDescriptors : 0);
    return std::nullopt;
  }
  std::string reason;
  const std::optional<FrameHeader> header = FrameHeader::decode(start(), reason);
  if (!header) {
    fail(std::move(reason));
    return std::nullopt;
  }
  dropUnclaimable(*header);
  const std::size_t length = FrameHeader::kBytes + header->bodyLength;
  if (held() < length) {
    missing_ = length - held();
    checkDescriptors(header->descriptorCount);
    return std::nullopt;
  }
  if (descriptors_.size() < header->descriptorCount) {
    fail("a frame declares " + std::to_string(header->descriptorCount) + " descriptors, but only " +
         std::to_string(descriptors_.size()) + " came");
    return std::nullopt;
  }
  return takeFrame(*header);
}

Frame FrameReader::takeFrame(const FrameHeader& header) {
  Frame frame;
  frame.type = header.type;
  frame.regions = header.regions;
  // First all that needs memory: without it, nothing is taken.
  frame.descriptors.reserve(header.descriptorCount);
  frame.body = takeBody(header.bodyLength);
  const auto last = descriptors_.begin() + header.descriptorCount;
  std::move(descriptors_.begin(), last, std::back_inserter(frame.descriptors));
  if (header.descriptorCount > 0) descriptors_.pop_front(header.descriptorCount);
  ++framesTaken_;
  return frame;
}

ByteBuffer FrameReader::takeBody(std::size_t length) {
  if (length >= kStayingBytes && length >= capacity() / 4 * 3) return giveAway(length);
  ByteBuffer body(std::span(start() + FrameHeader::kBytes, length));
  consume(FrameHeader::kBytes + length);
  return body;
}

// The block with the frame in it; what has come behind the frame moves to a new one.
ByteBuffer FrameReader::giveAway(std::size_t length) {
  const std::size_t end = begin_ + FrameHeader::kBytes + length;
  ByteBuffer next;
  if (end < end_) {
    next.reserve(roundUp(end_ - end));
    next.append({buffer_.data() + end, end_ - end});
  }
  ByteBuffer body(buffer_.block(), buffer_.data() + begin_ + FrameHeader::kBytes, length);
  body.block()->retain();
  buffer_ = std::move(next);
  begin_ = 0;
  end_ = buffer_.size();
  return body;
}

void FrameReader::dropUnclaimable(const FrameHeader& header) noexcept {
  if (header.regions != 0) return;
  const std::size_t end = std::min<std::size_t>(descriptors_.size(), header.descriptorCount);
  for (std::size_t index = keptDescriptors_; index < end; ++index) descriptors_[index].reset();
}

void FrameReader::checkDescriptors(std::size_t claimable) {
  if (descriptors_.size() <= claimable) return;
  fail(overLimit("descriptors that came for the next frame", descriptors_.size(), claimable));
}

void FrameReader::consume(std::size_t count) noexcept {
  begin_ += count;
  if (begin_ != end_) return;
  begin_ = end_ = 0;
  if (capacity() > kKeptBytes) buffer_ = ByteBuffer();
}

void FrameReader::compact() noexcept {
  if (begin_ == 0) return;
  std::memmove(buffer_.data(), start(), held());
  end_ = held();
  begin_ = 0;
}

void FrameReader::fail(std::string reason) {
  reason_ = std::move(reason);
  descriptors_.clear();
  consume(held());
}

}  // namespace velto::wire
