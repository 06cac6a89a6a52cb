// The stream of frames, cut at random, with random descriptors along with each piece. Another reader, written as simply
// as the protocol allows, gets the same pieces: both must give the same frames with the same descriptors, and break at
// the same point. When no descriptors come, a third one gets the stream at once and must give the same too.
//
// The input: a byte of options, a byte that counts pieces, that many pieces (two bytes: length and descriptors), then
// the stream. With the lowest option set, the stream is one of sound frames made from these bytes.

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/Require.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/FrameReader.h"

namespace velto::fuzzing {
namespace {

using system::SharedDescriptor;
using wire::Frame;
using wire::FrameHeader;
using wire::FrameReader;

constexpr Budget kBudget{
    // Two readers have room for 64 KiB each. Three bytes of input bring up to 66 descriptors, of 300 bytes each; what
    // the stream itself may take is checked exactly below.
    .heldBytes = 256 << 10,
    .heldBytesPerByte = 8192,
    .allocatedBytes = 384 << 10,
    .allocatedBytesPerByte = 16384,
    // Measured: 1 ms at most.
    .time = std::chrono::milliseconds(100),
    .timePerByte = std::chrono::microseconds(50),
};

struct Piece {
  std::vector<std::uint8_t> bytes;
  std::vector<SharedDescriptor> descriptors;
};

// What the protocol says, without regard for speed or memory.
class PlainReader {
 public:
  void receive(const Piece& piece) {
    if (failed_) return;
    bytes_.insert(bytes_.end(), piece.bytes.begin(), piece.bytes.end());
    descriptors_.insert(descriptors_.end(), piece.descriptors.begin(), piece.descriptors.end());
  }
  bool next(Frame& frame) {
    if (failed_) return false;
    if (bytes_.size() < FrameHeader::kBytes) return stopUnless(bytes_.empty() ? 0 : limits::kMaximumDescriptors);
    const std::size_t length =
        bytes_[0] | std::size_t{bytes_[1]} << 8 | std::size_t{bytes_[2]} << 16 | std::size_t{bytes_[3]} << 24;
    const std::size_t count = bytes_[6] | std::size_t{bytes_[7]} << 8;
    const unsigned type = bytes_[4];
    const bool mayCarry = type == 2 || type == 3;
    if (type < 1 || type > 8) return fail("unknown type " + std::to_string(type));
    const unsigned regions = bytes_[5];
    const bool areRegions = regions >= 18 && regions <= 30 && count > 0;
    if (regions != 0 && !areRegions) return fail("byte of regions is " + std::to_string(regions));
    if (length > limits::kMaximumFrameBytes) return fail(limit(length, limits::kMaximumFrameBytes));
    if (count > limits::kMaximumDescriptors) return fail(limit(count, limits::kMaximumDescriptors));
    if (count > 0 && !mayCarry) return fail(limit(count, 0));
    if (bytes_.size() < FrameHeader::kBytes + length) return stopUnless(count);
    if (descriptors_.size() < count) return fail("only " + std::to_string(descriptors_.size()) + " came");
    frame = {};
    frame.type = static_cast<wire::FrameType>(type);
    frame.regions = static_cast<std::uint8_t>(regions);
    const auto body = bytes_.begin() + FrameHeader::kBytes;
    frame.body = std::vector<std::uint8_t>(body, body + static_cast<std::ptrdiff_t>(length));
    bytes_.erase(bytes_.begin(), body + static_cast<std::ptrdiff_t>(length));
    for (std::size_t taken = 0; taken < count; ++taken) {
      frame.descriptors.push_back(descriptors_.front());
      descriptors_.pop_front();
    }
    return true;
  }
  bool failed() const noexcept { return failed_; }
  // What the reason must say.
  const std::string& word() const noexcept { return word_; }

 private:
  static std::string limit(std::size_t value, std::size_t maximum) {
    return std::to_string(value) + ", maximum " + std::to_string(maximum);
  }
  bool stopUnless(std::size_t claimable) {
    return descriptors_.size() <= claimable ? false : fail(limit(descriptors_.size(), claimable));
  }
  bool fail(std::string word) {
    failed_ = true;
    word_ = std::move(word);
    descriptors_.clear();
    return false;
  }

  std::vector<std::uint8_t> bytes_;
  std::deque<SharedDescriptor> descriptors_;
  bool failed_ = false;
  std::string word_;
};

bool isSame(const Frame& left, const Frame& right) {
  return left.type == right.type && left.body == right.body && left.descriptors == right.descriptors;
}

std::vector<SharedDescriptor> newDescriptors(std::size_t count) {
  std::vector<SharedDescriptor> made(count);
  for (auto& each : made) {
    each = std::make_shared<const system::Descriptor>(
        system::Descriptor(FakeKernel::shared().open(std::make_shared<KernelObject>(ObjectKind::file))));
  }
  return made;
}

// Feeds the reader, and holds it to what it promises of its memory.
void receive(FrameReader& reader, const Piece& piece, std::size_t& arrived) {
  constexpr std::size_t kRoom = std::size_t{64} << 10;
  const auto room = reader.prepare(piece.bytes.size());
  require(room.size() >= piece.bytes.size() && !room.empty(), "there is the room that was asked for");
  std::copy(piece.bytes.begin(), piece.bytes.end(), room.begin());
  arrived += piece.bytes.size();
  reader.received(piece.bytes.size(), piece.descriptors);
  require(reader.capacity() <= 2 * arrived + 2 * kRoom, "memory grows with what has arrived");
}

std::vector<Frame> framesOf(FrameReader& reader) {
  std::vector<Frame> frames;
  while (auto frame = reader.next()) frames.push_back(std::move(*frame));
  return frames;
}

void requireReason(const FrameReader& reader, const PlainReader& plain) {
  require(reader.failed() == plain.failed(), "a broken stream is found at once, and no other");
  if (!reader.failed() || reader.reason().find(plain.word()) != std::string::npos) return;
  reportFinding("a reason without \"" + plain.word() + "\": " + reader.reason());
}

// The same pieces to both; returns all frames.
std::vector<Frame> compare(FrameReader& reader, const std::vector<Piece>& pieces) {
  PlainReader plain;
  std::vector<Frame> all;
  std::size_t arrived = 0;
  for (const Piece& piece : pieces) {
    receive(reader, piece, arrived);
    plain.receive(piece);
    for (Frame& frame : framesOf(reader)) {
      Frame expected;
      require(plain.next(expected) && isSame(frame, expected), "frames come out as they were put in");
      all.push_back(std::move(frame));
    }
    Frame missing;
    require(!plain.next(missing), "no frame is held back");
    requireReason(reader, plain);
  }
  return all;
}

void compareUncut(const std::vector<Piece>& pieces, const std::vector<Frame>& frames, const FrameReader& cut) {
  Piece whole;
  for (const Piece& piece : pieces) {
    if (!piece.descriptors.empty()) return;
    whole.bytes.insert(whole.bytes.end(), piece.bytes.begin(), piece.bytes.end());
  }
  FrameReader reader;
  std::size_t arrived = 0;
  receive(reader, whole, arrived);
  const std::vector<Frame> uncut = framesOf(reader);
  require(uncut.size() == frames.size(), "however a stream is cut, it holds the same frames");
  for (std::size_t index = 0; index < uncut.size(); ++index) {
    require(isSame(uncut[index], frames[index]), "however a stream is cut, its frames are the same");
  }
  require(reader.failed() == cut.failed() && reader.reason() == cut.reason(), "the end does not depend on the cuts");
}

struct Cut {
  std::size_t length;
  std::size_t descriptors;
};

std::vector<Cut> readCuts(Input& input) {
  std::vector<Cut> cuts(input.byte() % 64u);
  for (Cut& cut : cuts) {
    cut.length = input.byte();
    cut.descriptors = input.byte();
    // Mostly few: the limit is 64.
    cut.descriptors = cut.descriptors < 192 ? cut.descriptors % 4 : 62 + cut.descriptors % 5;
  }
  return cuts;
}

// Any bytes, any descriptors.
void readAnything(Input& input, const std::vector<Cut>& cuts) {
  std::vector<Piece> pieces;
  for (const Cut& cut : cuts) {
    const Bytes bytes = input.take(cut.length == 255 ? 4096 : cut.length);
    pieces.push_back({{bytes.begin(), bytes.end()}, newDescriptors(bytes.empty() ? 0 : cut.descriptors)});
  }
  const Bytes rest = input.rest();
  pieces.push_back({{rest.begin(), rest.end()}, {}});
  FrameReader reader;
  const std::vector<Frame> frames = compare(reader, pieces);
  compareUncut(pieces, frames, reader);
}

// Sound frames, each with its descriptors at its first byte, cut anywhere.
void readSound(Input& input, const std::vector<Cut>& cuts) {
  std::vector<Frame> written;
  std::vector<Piece> stream;
  while (!input.isEmpty() && written.size() < 64) {
    Frame frame;
    const unsigned kind = input.byte();
    frame.type = static_cast<wire::FrameType>(1 + kind % 8);
    if (kind % 8 == 1 || kind % 8 == 2) frame.descriptors = newDescriptors(kind / 8 % 4);
    const Bytes body = input.take(input.twoBytes() % 2048);
    frame.body.append(body);
    const auto header = FrameHeader{static_cast<std::uint32_t>(body.size()), frame.type,
                                    static_cast<std::uint16_t>(frame.descriptors.size())}
                            .encode();
    Piece piece{{header.begin(), header.end()}, frame.descriptors};
    piece.bytes.insert(piece.bytes.end(), body.begin(), body.end());
    stream.push_back(std::move(piece));
    written.push_back(std::move(frame));
  }
  std::vector<Piece> pieces;
  std::size_t next = 0;
  for (Piece& piece : stream) {
    while (!piece.bytes.empty()) {
      const std::size_t wanted = cuts.empty() ? piece.bytes.size() : 1 + cuts[next++ % cuts.size()].length;
      const auto end = piece.bytes.begin() + static_cast<std::ptrdiff_t>(std::min(wanted, piece.bytes.size()));
      pieces.push_back({{piece.bytes.begin(), end}, std::exchange(piece.descriptors, {})});
      piece.bytes.erase(piece.bytes.begin(), end);
    }
  }
  FrameReader reader;
  const std::vector<Frame> frames = compare(reader, pieces);
  require(!reader.failed() && !reader.hasPartialFrame(), "a sound stream does not break");
  require(frames.size() == written.size(), "every frame arrives");
  for (std::size_t index = 0; index < frames.size(); ++index) {
    require(isSame(frames[index], written[index]), "a frame arrives as it was written");
  }
}

void run(Bytes bytes) {
  {
    Input input(bytes);
    const bool isSound = (input.byte() & 1u) != 0;
    const std::vector<Cut> cuts = readCuts(input);
    isSound ? readSound(input, cuts) : readAnything(input, cuts);
  }
  require(FakeKernel::shared().openDescriptors() == 0, "no descriptor stays open");
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velto::fuzzing::FakeKernel::shared();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
