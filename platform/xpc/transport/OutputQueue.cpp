#include "platform/xpc/transport/OutputQueue.h"

#include <algorithm>
#include <new>
#include <utility>

namespace velto::transport {

namespace {

// A frame of up to so many bytes is copied to those before it that wait, which is less work than a piece more to
// gather; as long as these come to less than that.
constexpr std::size_t kSmallFrame = std::size_t{2} << 10;
constexpr std::size_t kBatchBytes = std::size_t{16} << 10;

std::size_t regionsOfCall(const wire::Frame& frame) noexcept {
  return frame.type == wire::FrameType::call ? frame.regionWeight() : 0;
}

}  // namespace

bool OutputQueue::Output::gather(std::span<iovec> room, std::size_t& count) const noexcept {
  std::size_t written = size() - remaining;
  const auto add = [&](std::span<const std::uint8_t> piece) {
    const std::size_t skipped = std::min(written, piece.size());
    written -= skipped;
    if (skipped == piece.size()) return true;
    if (count == room.size()) return false;
    room[count++] = {const_cast<std::uint8_t*>(piece.data() + skipped), piece.size() - skipped};
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

std::size_t OutputQueue::Output::consume(std::size_t count) noexcept {
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

void OutputQueue::add(wire::Frame&& frame, bool waits) {
  const std::size_t size = frame.size();
  const auto header = wire::FrameHeader{static_cast<std::uint32_t>(size), frame.type,
                                        static_cast<std::uint16_t>(frame.descriptors.size()), frame.regions}
                          .encode();
  const std::size_t all = header.size() + size;
  if (waits && all <= kSmallFrame && frame.enclosures.empty() && frame.descriptors.empty()) {
    addToBatch(header, frame);
  } else {
    Output added;
    added.header = header;
    added.headerBytes = header.size();
    added.frame = std::move(frame);
    added.remaining = all;
    // Encoding leaves as much again unused.
    if (waits) added.frame.body.releaseUnused();
    const std::size_t regions = regionsOfCall(added.frame);
    outputs_.push_back(std::move(added));
    waitingRegions_ += regions;
  }
  progress_.waitingBytes += all;
}

void OutputQueue::addToBatch(std::span<const std::uint8_t> header, const wire::Frame& frame) {
  const std::size_t all = header.size() + frame.body.size();
  if (outputs_.empty() || !outputs_.back().isBatch() || outputs_.back().frame.body.size() + all > kBatchBytes) {
    if (!outputs_.empty()) outputs_.back().frame.body.releaseUnused();
    outputs_.emplace_back().boundary = all;
  }
  Output& batch = outputs_.back();
  wire::ByteBuffer& bytes = batch.frame.body;
  const std::size_t needed = bytes.size() + all;
  try {
    if (bytes.capacity() < needed) bytes.reserve(std::max(2 * bytes.size(), needed));
  } catch (const std::bad_alloc&) {
    if (bytes.empty()) outputs_.pop_back();
    throw;
  }
  bytes.append(header);
  bytes.append(frame.body);
  batch.remaining += all;
}

void OutputQueue::clear() noexcept {
  outputs_.clear();
  progress_.waitingBytes = 0;
  waitingRegions_ = 0;
}

std::span<iovec> OutputQueue::gather(std::span<iovec> room) const noexcept {
  std::size_t count = 0;
  const Output& first = outputs_.front();
  for (const Output& output : outputs_) {
    // Descriptors go with the first byte of a write: a frame that carries some must begin one.
    if (&output != &first && !output.frame.descriptors.empty()) break;
    if (!output.gather(room, count)) break;
  }
  return room.first(count);
}

std::span<const system::SharedDescriptor> OutputQueue::descriptors() const noexcept {
  const Output& first = outputs_.front();
  if (first.isBegun()) return {};
  return first.frame.descriptors;
}

void OutputQueue::wrote(std::size_t bytes) noexcept {
  progress_.waitingBytes -= bytes;
  while (!outputs_.empty()) {
    Output& first = outputs_.front();
    const std::size_t part = std::min(bytes, first.remaining);
    bytes -= part;
    progress_.framesWritten.fetch_add(first.consume(part), std::memory_order_release);
    if (first.remaining > 0) return;
    waitingRegions_ -= regionsOfCall(first.frame);
    outputs_.pop_front();
  }
}

}  // namespace velto::transport
