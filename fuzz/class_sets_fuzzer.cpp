// A random class set, enforced while hostile bytes are decoded: in what comes out, no object at any depth may be of
// another class. And nothing may be refused for its class that is admitted: the same bytes are decoded with every class
// admitted, and the two outcomes must go together.
//
// The first two bytes choose the classes, the third the descriptors of the frame; the rest is one value.

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/Quiet.h"
#include "fuzz/support/Require.h"
#include "fuzz/support/Values.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::fuzzing {
namespace {

using wire::ValueDecoder;
using Outcome = ValueDecoder::Outcome;

// Measured on the dearest inputs that could be thought of, and about tripled.
constexpr Budget kBudget{
    // An empty array comes in one byte, and takes 153 here, once with all classes and once with some.
    .heldBytes = 64 << 10,
    .heldBytesPerByte = 512,
    .allocatedBytes = 128 << 10,
    .allocatedBytesPerByte = 640,
    // Arrays as keys are compared each with each: a thousand of them fit into 4 kB, and take 110 us for each byte.
    .time = std::chrono::milliseconds(100),
    .timePerByte = std::chrono::microseconds(400),
};

struct Decoded {
  Outcome outcome = Outcome::broken;
  NSObject value;
  std::string reason;
};

Decoded decode(const wire::Frame& frame, const wire::ClassSet& admitted) {
  ValueDecoder decoder(frame);
  Decoded decoded;
  decoded.outcome = decoder.next(admitted, decoded.value);
  decoded.reason = decoder.reason();
  return decoded;
}

std::vector<Class> chosenClasses(std::size_t choice) {
  std::vector<Class> chosen;
  for (std::size_t index = 0; index < travellingClasses().size(); ++index) {
    if ((choice >> index & 1u) != 0) chosen.push_back(travellingClasses()[index]);
  }
  return chosen;
}

// Every object of the value is of one of the classes, or of a subclass.
bool consistsOf(const NSObject& value, const std::vector<Class>& classes) {
  bool all = true;
  walk(value, [&](const NSObject& object) {
    all = all && std::ranges::any_of(classes, [&](const Class& each) { return object.isKindOfClass(each); });
  });
  return all;
}

void run(Bytes bytes) {
  Input input(bytes);
  const std::vector<Class> classes = chosenClasses(input.twoBytes());
  const unsigned descriptors = input.byte();
  {
    const wire::Frame frame = frameWith(input.rest(), descriptors & 7u, descriptors >> 3);
    const wire::ClassSet admitted(NSSet::setWithObjects({classes.begin(), classes.end()}));
    const Decoded some = decode(frame, admitted);
    const Decoded all = decode(frame, everything());
    const bool isAllowed = all.outcome == Outcome::value && consistsOf(all.value, classes);
    if (some.outcome == Outcome::value) {
      require(consistsOf(some.value, classes), "nothing outside of the set comes out");
      require(isAllowed && some.value == all.value, "a set admits or refuses, and changes nothing");
    } else {
      require(some.value.isNil(), "nothing is returned but a value");
      if (isAllowed) reportFinding("refused, though every class is admitted: " + some.reason);
      require(all.outcome != Outcome::value || some.outcome == Outcome::refused, "sound bytes are only refused");
      require(all.outcome != Outcome::refused || some.outcome == Outcome::refused, "refused bytes are sound");
    }
  }
  require(FakeKernel::shared().openDescriptors() == 0, "no descriptor stays open");
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velto::fuzzing::FakeKernel::shared();
  velto::fuzzing::formatLogAndDropIt();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
