// The work in values.
#include "benchmarks/Exchange.h"

#include "benchmarks/ValueMessages.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::benchmarks {
namespace {

const wire::ClassSet& everything() {
  static const wire::ClassSet made(NSSet::setWithObjects({NSObject::classObject()}));
  return made;
}

NSDictionary overTheWire(const NSDictionary& message) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(message);
  const wire::Frame frame = encoder.take();
  wire::ValueDecoder decoder(frame);
  NSObject value;
  decoder.next(everything(), value);
  return std::move(value).as<NSDictionary>();
}

}  // namespace

double exchangeValues(const Request& request) {
  const NSDictionary received = overTheWire(requestOfValues(request));
  const double result = received["factor"].doubleValue() * received["identifier"].doubleValue() + kOffset;
  const NSDictionary reply = overTheWire(replyOfValues(result));
  return reply["result"].doubleValue();
}

}  // namespace velto::benchmarks
