// Values of every kind, as the input says, and what is written for them. libcbor reads it, and finds one item that says
// what the value holds; the decoder brings back an equal value, for which the same bytes are written. What may not
// travel is refused, and nothing else.
//
// The input is what builtValue() takes. A first byte of 255: values as large as a frame may be, and of more objects, of
// which nothing but whether they are refused is asked.

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/Quiet.h"
#include "fuzz/support/Require.h"
#include "fuzz/support/ValueBuilder.h"
#include "fuzz/support/Values.h"
#include "fuzz/support/WrittenTree.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Frames.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::fuzzing {
namespace {

using Objects = std::vector<NSObject>;
using Outcome = wire::ValueDecoder::Outcome;

// Measured on the dearest inputs that could be thought of, and about tripled.
constexpr Budget kBudget{
    // 80 KiB of long texts and data, whatever few bytes ask for them: 500 kB held and 1.2 MB allocated with all copies.
    .heldBytes = 1536 << 10,
    // Towers of containers, 300 floors in 184 bytes: 1 kB held and 1.7 kB allocated for each byte.
    .heldBytesPerByte = 3 << 10,
    .allocatedBytes = 4 << 20,
    .allocatedBytesPerByte = 5 << 10,
    // The same towers as elements of a set take 35 us for each byte.
    .time = std::chrono::milliseconds(100),
    .timePerByte = std::chrono::microseconds(100),
};

// After docs/wire.md, and not after the writer.
class Rules {
 public:
  bool mayTravel(const NSObject& value, std::size_t level = 0) {
    if (value.isNil()) return level == 0;
    if (const auto date = value.as<NSDate>()) return std::isfinite(date.timeIntervalSince1970());
    if (value.is<NSXPCListenerEndpoint>()) return (descriptors_ += 2) <= limits::kMaximumDescriptors;
    if (value.is<NSFileDescriptor>()) return ++descriptors_ <= limits::kMaximumDescriptors;
    if (value.is<Class>()) return false;
    Objects contents;
    if (!contentsOf(value, contents)) return true;
    return level < limits::kMaximumDepth &&
           std::ranges::all_of(contents, [&](const NSObject& each) { return mayTravel(each, level + 1); });
  }

 private:
  // False for what has none at all.
  static bool contentsOf(const NSObject& value, Objects& contents) {
    const auto add = [&contents](const auto& all) { contents.insert(contents.end(), all.begin(), all.end()); };
    const auto addPairs = [&](const NSDictionary& dictionary) { add(dictionary), add(dictionary.allValues()); };
    if (const auto array = value.as<NSArray>()) return add(array), true;
    if (const auto set = value.as<NSSet>()) return add(set), true;
    if (const auto dictionary = value.as<NSDictionary>()) return addPairs(dictionary), true;
    if (const auto error = value.as<NSError>()) return addPairs(error.userInfo()), true;
    if (const auto box = value.as<Box>(); !box.isNil()) return contents.push_back(box.contents()), true;
    return false;
  }

  std::size_t descriptors_ = 0;
};

// Nothing if it is refused.
std::optional<wire::Frame> written(const NSObject& value) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(value);
  encoder.finish();
  require(isValidUTF8(encoder.reason()), "a reason is UTF-8");
  if (encoder.failed()) return std::nullopt;
  return testing::inOnePiece(encoder.take());
}

void runWith(const NSObject& value) {
  const auto frame = written(value);
  require(frame.has_value() == Rules().mayTravel(value), "what may travel is written, and nothing else");
  if (!frame) return;
  requireWritten(value, *frame);
  wire::ValueDecoder decoder(*frame);
  NSObject again;
  if (decoder.next(everything(), again) != Outcome::value) {
    // The sender does not add up what keys cost to compare, nor look at what they hold.
    if (decoder.reason().find("comparisons of keys") != std::string::npos) return;
    if (decoder.reason().find("NSFileDescriptor in a key") != std::string::npos) return;
    reportFinding("what was written does not decode: " + decoder.reason());
  }
  require(decoder.atEnd(), "a value is one item");
  require(again == value && value == again, "a value survives the journey");
  const auto second = written(again);
  require(second && second->body == frame->body, "a value is written in one way");
  require(second->descriptors == frame->descriptors, "descriptors keep their order");
}

// Refused at once: more objects than there may be. Sent from where it lies: what nearly fills a frame.
const NSArray& manyObjects() {
  static const NSArray& made =
      *new NSArray(NSArray::arrayWithObjects(Objects(limits::kMaximumObjects, NSNull::null())));
  return made;
}
const NSData& largeData() {
  static const NSData& made =
      *new NSData(NSData::dataWithVector(std::vector<std::uint8_t>(limits::kMaximumFrameBytes - 200)));
  return made;
}

void runAtLimits() {
  require(!written(manyObjects()), "more objects than there may be are refused");
  constexpr std::size_t kMost = limits::kMaximumFrameBytes;
  for (const std::size_t size : {kMost - 1, kMost, kMost + 1}) {
    // The heads of the array, of the data, and of the text.
    const std::size_t length = size - (1 + 5 + 2) - largeData().length();
    wire::ValueEncoder encoder(wire::FrameType::call);
    encoder.add(NSArray{largeData(), std::string(length, 'x')});
    require(encoder.exceededLimit() == (size > kMost), "a frame may be as large as it may be");
    require(encoder.failed() || encoder.take().size() == size, "a frame has the size of what is in it");
  }
}

void run(Bytes bytes) {
  if (!bytes.empty() && bytes.front() == UINT8_MAX) {
    runAtLimits();
  } else {
    runWith(builtValue(bytes));
  }
  require(lentData() == 0, "what was lent is given back");
  require(FakeKernel::shared().openDescriptors() == 0, "no descriptor stays open");
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velto::fuzzing::FakeKernel::shared();
  velto::fuzzing::formatLogAndDropIt();
  velto::fuzzing::manyObjects();
  velto::fuzzing::largeData();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
