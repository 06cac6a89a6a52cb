// The work in values.
#include "benchmarks/Exchange.h"

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
  const NSDictionary received =
      overTheWire({{"operation", "sum of all given terms."},
                   {"identifier", request.number},
                   {"sender", "a text of thirty-two bytes, here"},
                   {"factor", 2.0},
                   {"offset", 0.5},
                   {"is urgent", true},
                   {"deadline", 1'700'000'000},
                   {"terms", NSArray{1, 20, 300, 4000}},
                   {"payload", NSData::dataWithBytes(request.data.data(), request.data.size())}});
  const double result = received["factor"].doubleValue() * received["identifier"].doubleValue() + 0.5;
  const NSDictionary reply = overTheWire({{"ok", true}, {"result", result}, {"unit", "metres"}});
  return reply["result"].doubleValue();
}

}  // namespace velto::benchmarks
