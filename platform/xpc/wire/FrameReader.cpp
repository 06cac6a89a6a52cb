// One buffer for the stream. Small frames are read many at a time; for a large one the buffer doubles as its bytes
// arrive, up to its end, and is given back afterwards. The memory is not initialised: a connection that gets small
// frames touches one page of its room.

#include "platform/xpc/wire/FrameReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "VeltoIPC/Limits.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// What is asked of the socket at once. Larger reads save no time worth their memory.
constexpr std::size_t kRoomBytes = std::size_t{64} << 10;
// An empty buffer above this is given back.
constexpr std::size_t kKeptBytes = 2 * kRoomBytes;

std::size_t roundUp(std::size_t bytes) {
  return (bytes + kRoomBytes - 1) / kRoomBytes * kRoomBytes;
}

}  // namespace

std::span<std::uint8_t> FrameReader::prepare(std::size_t wanted) {
  wanted = std::max<std::size_t>(wanted, 1);
  if (capacity_ - end_ < wanted) {
    // As much again as has arrived, so that a large frame is moved a bounded number of times, but not past its end.
    const std::size_t target = held() + std::max(wanted, std::min(missing_, held()));
    if (target > capacity_) grow(roundUp(target));
    compact();
  }
  return {bytes_.get() + end_, capacity_ - end_};
}

void FrameReader::received(std::size_t count, std::vector<system::SharedDescriptor> descriptors) {
  if (failed()) return;
  end_ += count;
  for (system::SharedDescriptor& descriptor : descriptors) {
    const bool kept = descriptors_.size() < keptDescriptors_;
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
  const std::uint8_t* const body = start() + FrameHeader::kBytes;
  frame.body.assign(body, body + header.bodyLength);
  const auto last = descriptors_.begin() + header.descriptorCount;
  frame.descriptors.assign(std::make_move_iterator(descriptors_.begin()), std::make_move_iterator(last));
  descriptors_.erase(descriptors_.begin(), last);
  consume(FrameHeader::kBytes + header.bodyLength);
  ++framesTaken_;
  return frame;
}

void FrameReader::checkDescriptors(std::size_t claimable) {
  if (descriptors_.size() <= claimable) return;
  fail(overLimit("descriptors that came for the next frame", descriptors_.size(), claimable));
}

void FrameReader::consume(std::size_t count) noexcept {
  begin_ += count;
  if (begin_ != end_) return;
  begin_ = end_ = 0;
  if (capacity_ <= kKeptBytes) return;
  bytes_.reset();
  capacity_ = 0;
}

void FrameReader::compact() noexcept {
  if (begin_ == 0) return;
  std::memmove(bytes_.get(), start(), held());
  end_ = held();
  begin_ = 0;
}

void FrameReader::grow(std::size_t capacity) {
  // realloc() moves large blocks by mapping them elsewhere, without copying.
  auto* const grown = static_cast<std::uint8_t*>(std::realloc(bytes_.get(), capacity));
  if (grown == nullptr) throw std::bad_alloc();
  static_cast<void>(bytes_.release());
  bytes_.reset(grown);
  capacity_ = capacity;
}

void FrameReader::fail(std::string reason) {
  reason_ = std::move(reason);
  descriptors_.clear();
  consume(held());
}

}  // namespace velto::wire
