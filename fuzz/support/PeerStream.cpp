// The two directions of a fuzzed stream, judged from outside: written against the documentation of the wire, with the
// library's own decoder only for what stands inside of sound frames.

#include "fuzz/support/PeerStream.h"

#include <string>

#include "fuzz/support/Require.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::fuzzing {
namespace {

using wire::Frame;
using wire::FrameType;

constexpr std::size_t kHeaderBytes = 8;

std::size_t bodyLength(Bytes header) {
  return header[0] | std::size_t{header[1]} << 8 | std::size_t{header[2]} << 16 | std::size_t{header[3]} << 24;
}
std::size_t descriptorCount(Bytes header) {
  return header[6] | std::size_t{header[7]} << 8;
}
bool isSound(Bytes header) {
  const unsigned type = header[4];
  const std::size_t most = type == 2 || type == 3 ? limits::kMaximumDescriptors : 0;
  const bool areRegions = header[5] >= 18 && header[5] <= 30 && descriptorCount(header) > 0;
  return type >= 1 && type <= 8 && (header[5] == 0 || areRegions) && bodyLength(header) <= limits::kMaximumFrameBytes &&
         descriptorCount(header) <= most;
}

// Saturates.
std::uint64_t sumOf(std::uint64_t left, std::uint64_t right) {
  return left + right < left ? UINT64_MAX : left + right;
}

Frame frameOf(Bytes bytes) {
  Frame frame;
  frame.type = static_cast<FrameType>(bytes[4]);
  frame.regions = bytes[5];
  frame.body.append(std::span(bytes).subspan(kHeaderBytes));
  return frame;
}

class Checker {
 public:
  Checker(const PeerWords& peer, LibraryWords& words) : peer_(peer), words_(words) {}

  // Of a frame that was sent with the peer's hello heard.
  void checkLimits(const Frame& frame, std::size_t descriptors) {
    if (frame.type != FrameType::call && frame.type != FrameType::reply) return;
    require(frame.body.size() <= peer_.hello->maximumFrameBytes, "a frame is no longer than the peer has stated");
    require(descriptors <= peer_.hello->maximumDescriptors, "no more descriptors are sent than the peer has stated");
    if (frame.type == FrameType::call) isUnderCredit_ = true;
  }
  // Calls that the peer has not freed stay within its credit; those sent before its hello do not count.
  void checkCredit() const {
    if (!isUnderCredit_ || words_.calls <= peer_.freed.calls) return;
    require(words_.calls - peer_.freed.calls <= peer_.hello->undeliveredCalls, "no more calls are sent than allowed");
    if (words_.callBytes <= peer_.freed.bytes) return;
    require(words_.callBytes - peer_.freed.bytes <= peer_.hello->undeliveredBytes,
            "no more bytes of calls are sent than allowed");
  }

  void check(const Frame& frame) {
    require(!words_.saidGoodbye, "nothing is sent behind a goodbye");
    require((frame.type == FrameType::hello) == isFirst_, "a hello comes first, and once");
    isFirst_ = false;
    std::string reason;
    wire::ValueDecoder decoder(frame);
    switch (frame.type) {
      case FrameType::hello:
        require(frame.body == wire::Hello::ours().encode().body, "the hello is this build's");
        break;
      case FrameType::call:
        require(wire::decodeCallHeader(decoder, reason).has_value(), "a call has a head");
        ++words_.calls;
        words_.callBytes += frame.credit();
        break;
      case FrameType::reply: {
        const auto identifier = decoder.nextUnsigned();
        require(identifier.has_value(), "a reply has its call's number");
        answered(*identifier);
        break;
      }
      case FrameType::replyDropped: {
        const auto identifier = wire::decodeReplyDropped(frame, reason);
        require(identifier.has_value(), "a dropped reply has its call's number");
        answered(*identifier);
        break;
      }
      case FrameType::refusal:
      case FrameType::replyRefusal: {
        const auto refusal = wire::Refusal::decode(frame, reason);
        require(refusal.has_value(), "a refusal has a number, a code and a text");
        settled(refusal->identifier);
        break;
      }
      case FrameType::credit: {
        const auto credit = wire::Credit::decode(frame, reason);
        require(credit.has_value(), "credit is two numbers");
        if (credit->calls == 0) {
          readRegions_ = sumOf(readRegions_, credit->bytes);
          require(readRegions_ <= peer_.replyRegions, "regions are acknowledged that came");
          break;
        }
        creditedBytes_ = sumOf(creditedBytes_, credit->bytes);
        creditedCalls_ = sumOf(creditedCalls_, credit->calls);
        require(creditedBytes_ <= peer_.callBytes && creditedCalls_ <= peer_.callCount,
                "credit is for calls that came");
        break;
      }
      case FrameType::goodbye:
        require(frame.body.empty(), "a goodbye is empty");
        words_.saidGoodbye = true;
        break;
    }
  }

 private:
  void answered(std::uint64_t identifier) {
    const auto asked = peer_.callsForReply.find(identifier);
    require(asked != peer_.callsForReply.end() && ++answers_[identifier] <= asked->second,
            "an answer goes to a call that wants one, once");
    settled(identifier);
  }
  void settled(std::uint64_t identifier) {
    words_.settled.insert(identifier);
    const auto made = peer_.calls.find(identifier);
    require(made != peer_.calls.end() && ++settlements_[identifier] <= made->second,
            "a call is answered or refused once");
  }

  const PeerWords& peer_;
  LibraryWords& words_;
  bool isFirst_ = true;
  bool isUnderCredit_ = false;
  std::uint64_t readRegions_ = 0;
  std::uint64_t creditedBytes_ = 0;
  std::uint64_t creditedCalls_ = 0;
  std::map<std::uint64_t, unsigned> answers_;
  std::map<std::uint64_t, unsigned> settlements_;
};

}  // namespace

std::vector<std::uint8_t> frameBytes(unsigned type, std::size_t declaredLength, std::size_t declaredDescriptors,
                                     Bytes body) {
  std::vector<std::uint8_t> bytes(kHeaderBytes);
  for (unsigned index = 0; index < 4; ++index) {
    bytes[index] = static_cast<std::uint8_t>(declaredLength >> (8 * index) & 0xFF);
  }
  bytes[4] = static_cast<std::uint8_t>(type);
  bytes[6] = static_cast<std::uint8_t>(declaredDescriptors & 0xFF);
  bytes[7] = static_cast<std::uint8_t>(declaredDescriptors >> 8 & 0xFF);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

std::vector<std::uint8_t> frameBytes(const Frame& frame) {
  return frameBytes(static_cast<unsigned>(frame.type), frame.body.size(), frame.descriptors.size(), frame.body);
}

void PeerWords::said(Bytes bytes) {
  if (broken_) return;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  std::size_t position = 0;
  const Bytes all(bytes_);
  while (all.size() - position >= kHeaderBytes) {
    const Bytes left = all.subspan(position);
    if (!isSound(left)) {
      broken_ = true;
      return;
    }
    const std::size_t length = kHeaderBytes + bodyLength(left);
    if (left.size() < length) break;
    frameSaid(frameOf(left.first(length)));
    position += length;
  }
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(position));
}

std::size_t PeerWords::missing() const noexcept {
  if (bytes_.size() < kHeaderBytes) return kHeaderBytes - bytes_.size();
  return kHeaderBytes + bodyLength(bytes_) - bytes_.size();
}

void PeerWords::frameSaid(const Frame& frame) {
  std::string reason;
  if (frame.type == FrameType::hello && !hello) hello = wire::Hello::decode(frame, reason);
  if (const auto credit = frame.type == FrameType::credit ? wire::Credit::decode(frame, reason) : std::nullopt) {
    if (credit->calls > 0) freed.bytes = sumOf(freed.bytes, credit->bytes);
    freed.calls = sumOf(freed.calls, credit->calls);
  }
  if (frame.type == FrameType::replyDropped) {
    if (const auto identifier = wire::decodeReplyDropped(frame, reason)) dropped.insert(*identifier);
  }
  if (frame.type == FrameType::reply) replyRegions += frame.regionWeight();
  if (frame.type != FrameType::call) return;
  ++callCount;
  callBytes += frame.credit();
  wire::ValueDecoder decoder(frame);
  const auto header = wire::decodeCallHeader(decoder, reason);
  if (!header) return;
  ++calls[header->identifier];
  if (header->wantsReply) ++callsForReply[header->identifier];
}

LibraryWords checkedWords(Bytes sent, const PeerWords& peer, std::size_t heardHelloAt, bool isWhole) {
  LibraryWords words;
  Checker checker(peer, words);
  std::size_t position = 0;
  while (sent.size() - position >= kHeaderBytes) {
    const Bytes left = sent.subspan(position);
    require(isSound(left), "what is sent has sound headers");
    words.descriptors += descriptorCount(left);
    const std::size_t length = kHeaderBytes + bodyLength(left);
    if (left.size() < length) break;
    const Frame frame = frameOf(left.first(length));
    checker.check(frame);
    if (peer.hasGreeted() && position >= heardHelloAt) checker.checkLimits(frame, descriptorCount(left));
    position += length;
  }
  checker.checkCredit();
  require(!isWhole || position == sent.size(), "no frame is left half sent");
  return words;
}

}  // namespace velto::fuzzing
