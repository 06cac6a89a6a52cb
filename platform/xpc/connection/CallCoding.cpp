// A frame is checked whole, every argument against its class set, before anything of it is used. Large ones take turns.

#include "platform/xpc/connection/CallCoding.h"

#include <utility>

#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/LongWork.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {

namespace {

using Outcome = wire::ValueDecoder::Outcome;

// The next value, which is to be of this class.
Reading readValue(wire::ValueDecoder& decoder, const wire::ClassSet& admitted, const Class& declared, NSObject& value,
                  std::string& reason) {
  const Outcome outcome = decoder.next(admitted, value);
  if (outcome == Outcome::value && isOfKind(value, declared)) return Reading::ready;
  reason = outcome == Outcome::value ? wrongKind(value, declared) : decoder.reason();
  return outcome == Outcome::broken ? Reading::broken : Reading::refused;
}

void decodeArguments(wire::ValueDecoder& decoder, const NSXPCInterface& interface, const Method& method,
                     DecodedCall& call) {
  call.arguments.resize(method.parameters.size());
  for (std::size_t index = 0; index < call.arguments.size(); ++index) {
    call.reading = readValue(decoder, interface.admitted(method, index, false), method.parameters[index].classObject,
                             call.arguments[index], call.reason);
    if (call.reading == Reading::ready) continue;
    if (call.reading == Reading::refused) call.reason = "argument " + std::to_string(index) + " " + call.reason;
    call.code = wire::kArgumentRefused;
    return;
  }
  if (decoder.atEnd()) return;
  call.reading = Reading::broken;
  call.reason = "bytes after the arguments of " + method.selector;
}

}  // namespace

EncodedCall encodeCall(std::uint64_t identifier, const Method& method, std::span<const NSObject> arguments,
                       bool wantsReply, bool passesRegionsOn) {
  wire::ValueEncoder encoder(wire::FrameType::call, passesRegionsOn);
  wire::encodeCallHeader(encoder, {identifier, method.selector, wantsReply});
  std::string where;
  for (std::size_t index = 0; index < arguments.size() && !encoder.failed(); ++index) {
    encoder.add(arguments[index]);
    if (encoder.failed()) where = "argument " + std::to_string(index) + ": ";
  }
  encoder.finish();
  if (!encoder.failed()) return {encoder.take(), nil};
  const auto code = encoder.exceededLimit() ? NSXPCLimitExceeded : NSXPCCallRefused;
  return {{}, makeError(code, where + encoder.reason())};
}

EncodedReply encodeReply(std::uint64_t identifier, const NSObject& value, bool passesRegionsOn,
                         std::size_t roomForRegions) {
  wire::ValueEncoder encoder(wire::FrameType::reply, passesRegionsOn, roomForRegions);
  encoder.addUnsigned(identifier);
  encoder.add(value);
  encoder.finish();
  if (!encoder.failed()) return {encoder.take(), "", 0};
  return {{}, encoder.reason(), encoder.exceededLimit() ? wire::kLimitExceeded : wire::kReplyRefused};
}

DecodedCall decodeCall(const wire::Frame& frame, const NSXPCInterface* interface) {
  DecodedCall call;
  wire::ValueDecoder decoder(frame);
  auto header = wire::decodeCallHeader(decoder, call.reason);
  if (!header) {
    call.reading = Reading::broken;
    return call;
  }
  call.header = *header;
  const Method* method = interface ? interface->protocol().methodForSelector(call.header.selector) : nullptr;
  if (method == nullptr) {
    call.reading = Reading::refused;
    call.code = wire::kNoSuchMethod;
    call.reason = interface ? "it has no such method" : "it exports no object";
    return call;
  }
  call.method = method;
  const transport::LongWork turn(frame.weight());
  decodeArguments(decoder, *interface, *method, call);
  return call;
}

DecodedReply decodeReply(const wire::Frame& frame, const NSXPCInterface& interface, const Method& method) {
  DecodedReply reply;
  const transport::LongWork turn(frame.weight());
  wire::ValueDecoder decoder(frame);
  decoder.nextUnsigned();
  const Class& declared = method.replyParameters.front().classObject;
  const Outcome outcome = decoder.next(interface.admitted(method, 0, true), reply.value);
  if (outcome != Outcome::value) {
    reply.reading = outcome == Outcome::broken ? Reading::broken : Reading::refused;
    reply.reason = decoder.reason();
    return reply;
  }
  if (!decoder.atEnd()) return {Reading::broken, nil, "bytes after the value of a reply"};
  if (!isOfKind(reply.value, declared)) return {Reading::refused, nil, wrongKind(reply.value, declared)};
  return reply;
}

}  // namespace velto::xpc
