// Frames without values, item by item in the order that docs/wire.md gives. A body with an item too many, too few, or
// of another kind is refused whole.

#include "platform/xpc/wire/Messages.h"

#include <utility>

#include "platform/foundation/UTF8.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::wire {
namespace {

Frame encodeNumbers(FrameType type, std::initializer_list<std::uint64_t> numbers) {
  ValueEncoder encoder(type);
  for (const std::uint64_t number : numbers) encoder.addUnsigned(number);
  return encoder.take();
}

bool decodeNumbers(ValueDecoder& decoder, std::initializer_list<std::uint64_t*> numbers) {
  for (std::uint64_t* number : numbers) {
    const std::optional<std::uint64_t> read = decoder.nextUnsigned();
    if (!read) return false;
    *number = *read;
  }
  return true;
}

// Whether everything was read, and nothing is left.
bool isWhole(const char* frame, const ValueDecoder& decoder, bool read, std::string& reason) {
  if (read && decoder.atEnd()) return true;
  reason = std::string(frame) + ": " + (read ? "bytes behind its last item" : decoder.reason());
  return false;
}

}  // namespace

Hello Hello::ours() {
  Hello hello;
  hello.maximumFrameBytes = limits::kMaximumFrameBytes + limits::kMaximumRegionBytes;
  hello.maximumDescriptors = limits::kMaximumDescriptors;
  hello.undeliveredBytes = limits::kUndeliveredBytes;
  hello.undeliveredCalls = limits::kUndeliveredCalls;
  return hello;
}

Frame Hello::encode() const {
  return encodeNumbers(FrameType::hello,
                       {version, maximumFrameBytes, maximumDescriptors, undeliveredBytes, undeliveredCalls});
}

std::optional<Hello> Hello::decode(const Frame& frame, std::string& reason) {
  ValueDecoder decoder(frame);
  Hello hello;
  const bool read = decodeNumbers(decoder, {&hello.version});
  if (read && hello.version != kProtocolVersion) return hello;
  const bool all = read && decodeNumbers(decoder, {&hello.maximumFrameBytes, &hello.maximumDescriptors,
                                                   &hello.undeliveredBytes, &hello.undeliveredCalls});
  if (!isWhole("hello", decoder, all, reason)) return std::nullopt;
  return hello;
}

void encodeCallHeader(ValueEncoder& encoder, const CallHeader& header) {
  if (header.selector.size() > limits::kMaximumSelectorBytes) {
    encoder.failOverLimit("bytes of a selector", header.selector.size(), limits::kMaximumSelectorBytes);
  }
  encoder.addUnsigned(header.identifier);
  encoder.addText(header.selector);
  encoder.addBool(header.wantsReply);
}

std::optional<CallHeader> decodeCallHeader(ValueDecoder& decoder, std::string& reason) {
  const std::optional<std::uint64_t> identifier = decoder.nextUnsigned();
  const std::optional<std::string_view> selector = decoder.nextText(limits::kMaximumSelectorBytes);
  const std::optional<bool> wantsReply = decoder.nextBool();
  if (wantsReply) return CallHeader{*identifier, *selector, *wantsReply};
  reason = "call: " + decoder.reason();
  return std::nullopt;
}

Frame encodeReplyDropped(std::uint64_t identifier) {
  return encodeNumbers(FrameType::replyDropped, {identifier});
}

std::optional<std::uint64_t> decodeReplyDropped(const Frame& frame, std::string& reason) {
  ValueDecoder decoder(frame);
  std::uint64_t identifier = 0;
  if (!isWhole("dropped reply", decoder, decodeNumbers(decoder, {&identifier}), reason)) return std::nullopt;
  return identifier;
}

Frame Refusal::encode(FrameType type) const {
  ValueEncoder encoder(type);
  encoder.addUnsigned(identifier);
  encoder.addUnsigned(code);
  encoder.addText(std::string_view(text).substr(0, lengthCutBetweenCharacters(text, limits::kMaximumReasonBytes)));
  return encoder.take();
}

std::optional<Refusal> Refusal::decode(const Frame& frame, std::string& reason) {
  ValueDecoder decoder(frame);
  Refusal refusal;
  decodeNumbers(decoder, {&refusal.identifier, &refusal.code});
  const std::optional<std::string_view> text = decoder.nextText(limits::kMaximumReasonBytes);
  if (!isWhole("refusal", decoder, text.has_value(), reason)) return std::nullopt;
  refusal.text = *text;
  return refusal;
}

Frame Credit::encode() const {
  if (aheadCalls == 0) return encodeNumbers(FrameType::credit, {bytes, calls});
  return encodeNumbers(FrameType::credit, {bytes, calls, aheadBytes, aheadCalls});
}

std::optional<Credit> Credit::decode(const Frame& frame, std::string& reason) {
  ValueDecoder decoder(frame);
  Credit credit;
  bool read = decodeNumbers(decoder, {&credit.bytes, &credit.calls});
  if (read && !decoder.atEnd()) {
    read = decodeNumbers(decoder, {&credit.aheadBytes, &credit.aheadCalls}) && credit.aheadCalls > 0;
  }
  if (!isWhole("credit", decoder, read, reason)) return std::nullopt;
  return credit;
}

Frame encodeGoodbye() {
  return encodeNumbers(FrameType::goodbye, {});
}

bool decodeGoodbye(const Frame& frame, std::string& reason) {
  return isWhole("goodbye", ValueDecoder(frame), true, reason);
}

}  // namespace velto::wire
