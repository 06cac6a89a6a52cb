#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include <sys/uio.h>

#include "platform/foundation/Fifo.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::transport {

// How far writing has come. Read by any thread.
struct OutputProgress {
  std::atomic<std::size_t> waitingBytes{0};
  // Whole.
  std::atomic<std::uint64_t> framesWritten{0};
};

// The frames of one channel that are not written yet, in their order, as a gathering write takes them. Not thread-safe.
class OutputQueue {
 public:
  // States there how far it has come, which must outlive it.
  explicit OutputQueue(OutputProgress& progress) : progress_(progress) {}

  // Behind all others. One that is to wait takes no more memory than it needs, and small ones that follow each other
  // are put into one piece. Throws std::bad_alloc, and has then added nothing.
  void add(wire::Frame&& frame, bool waits);
  void clear() noexcept;
  bool isEmpty() const noexcept { return outputs_.empty(); }

  // What the next write may take: pieces, as far as there is room for them, and the descriptors that go with its first
  // byte. There must be something.
  std::span<iovec> gather(std::span<iovec> room) const noexcept;
  std::span<const system::SharedDescriptor> descriptors() const noexcept;
  // A write has taken so many bytes.
  void wrote(std::size_t bytes) noexcept;

  // What the regions of calls count for; those of replies count until they are read.
  std::size_t waitingRegions() const noexcept { return waitingRegions_; }

 private:
  // A frame, or small ones one behind the other.
  struct Output {
    // Ahead of the bytes, which in a batch hold the headers.
    std::array<std::uint8_t, wire::FrameHeader::kBytes> header{};
    std::size_t headerBytes = 0;
    wire::Frame frame;
    std::size_t remaining = 0;  // bytes of header and frame together that are not written
    // Of a batch: where the first frame ends that is not written whole; 0 when this is none.
    std::size_t boundary = 0;

    std::size_t size() const noexcept { return headerBytes + frame.size(); }
    bool isBegun() const noexcept { return remaining < size(); }
    bool isBatch() const noexcept { return boundary > 0; }
    // Gathers what remains, piece by piece, as far as there is room for it. False when there was too little.
    bool gather(std::span<iovec> room, std::size_t& count) const noexcept;
    // Bytes were written. Returns how many frames are whole by that.
    std::size_t consume(std::size_t count) noexcept;
  };

  void addToBatch(std::span<const std::uint8_t> header, const wire::Frame& frame);

  OutputProgress& progress_;
  Fifo<Output> outputs_;
  std::size_t waitingRegions_ = 0;
};

}  // namespace velto::transport
