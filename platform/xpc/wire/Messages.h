#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::wire {

// The frames that hold no values of users, as structures. decode() gives nothing, and the reason, for a body that is
// not exactly what it should be.

inline constexpr std::uint64_t kProtocolVersion = 1;

// What an end says first. The numbers are what it is ready to receive.
struct Hello {
  std::uint64_t version = kProtocolVersion;
  // With its data in regions. An end that states no more than a frame may have takes none.
  std::uint64_t maximumFrameBytes = 0;
  std::uint64_t maximumDescriptors = 0;
  std::uint64_t undeliveredBytes = 0;
  std::uint64_t undeliveredCalls = 0;

  // This build's own.
  static Hello ours();
  Frame encode() const;
  // Reads the version first: a Hello of another version comes back with nothing but the version set.
  static std::optional<Hello> decode(const Frame& frame, std::string& reason);
};

// The part of a call or reply ahead of its values. Values follow in the same frame: ValueEncoder and ValueDecoder.
struct CallHeader {
  std::uint64_t identifier = 0;  // of the caller's choice, never used twice on a connection
  std::string_view selector;     // of the method's table, or in the frame that came
  bool wantsReply = false;
};
// A selector over limits::kMaximumSelectorBytes makes the encoder fail.
void encodeCallHeader(ValueEncoder& encoder, const CallHeader& header);
// Nothing, and the reason, when the bytes are broken.
std::optional<CallHeader> decodeCallHeader(ValueDecoder& decoder, std::string& reason);

// reply, replyDropped: the identifier alone (a reply's value follows it).
Frame encodeReplyDropped(std::uint64_t identifier);
std::optional<std::uint64_t> decodeReplyDropped(const Frame& frame, std::string& reason);

// Why a call was not delivered, or its answer not sent. Numbers are the wire's own and never reused; a peer may know
// more of them.
inline constexpr std::uint64_t kNoSuchMethod = 1;
inline constexpr std::uint64_t kArgumentRefused = 2;
inline constexpr std::uint64_t kReplyRefused = 3;
inline constexpr std::uint64_t kLimitExceeded = 4;

// refusal and replyRefusal. A text over limits::kMaximumReasonBytes is cut when it is encoded.
struct Refusal {
  std::uint64_t identifier = 0;
  std::uint64_t code = 0;
  std::string text;

  Frame encode(FrameType type) const;
  static std::optional<Refusal> decode(const Frame& frame, std::string& reason);
};

// How much of the sender's credit is free again, since the last credit frame.
struct Credit {
  std::uint64_t bytes = 0;
  std::uint64_t calls = 0;
  // Of calls that run ahead of others, by themselves.
  std::uint64_t aheadBytes = 0;
  std::uint64_t aheadCalls = 0;

  bool isNothing() const noexcept { return bytes == 0 && calls == 0 && aheadBytes == 0 && aheadCalls == 0; }
  Frame encode() const;
  static std::optional<Credit> decode(const Frame& frame, std::string& reason);
};

Frame encodeGoodbye();
bool decodeGoodbye(const Frame& frame, std::string& reason);

}  // namespace velto::wire
