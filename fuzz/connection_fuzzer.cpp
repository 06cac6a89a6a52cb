// A whole connection against a hostile peer: reader, protocol, decoder, dispatch, replies, refusals, credit, and the
// end of it all, on one thread over a kernel that is played. The input is a script.
//
// The first byte: who connects, how the user behaves, and whether the peer says hello by itself. Then steps, each up to
// the next separator: a byte that says what is done, and what it is done with.

#include <cerrno>
#include <vector>

#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/Quiet.h"
#include "fuzz/support/ReactorDriver.h"
#include "fuzz/support/Session.h"
#include "fuzz/support/Values.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::fuzzing {
namespace {

constexpr Budget kBudget{
    // A connection with its room for reading: measured 180 kB held, 400 kB allocated. A step of four bytes may make the
    // user send 16 kB that the peer does not read, and another may repeat a frame 63 times.
    .heldBytes = 512 << 10,
    .heldBytesPerByte = 32768,
    .allocatedBytes = 1 << 20,
    .allocatedBytesPerByte = 131072,
    // Measured: 5 ms at most; a frame of keys that must all be compared, 63 times, is dearer than that.
    .time = std::chrono::milliseconds(200),
    .timePerByte = std::chrono::microseconds(1000),
};

// More steps would only repeat what fewer do.
constexpr unsigned kMaximumSteps = 32;

std::vector<SharedObject> objects(std::size_t count, unsigned pattern) {
  std::vector<SharedObject> made;
  for (std::size_t index = 0; index < count; ++index) {
    const ObjectKind ofEndpoint = index % 2 == 0 ? ObjectKind::handle : ObjectKind::readEnd;
    const bool isWrong = (pattern >> (index % 4) & 1u) != 0;
    const ObjectKind wrong = (pattern >> 4 & 1u) != 0 ? ObjectKind::stream : ObjectKind::file;
    made.push_back(std::make_shared<KernelObject>(isWrong ? wrong : ofEndpoint));
  }
  return made;
}

// A frame with a true length. Its descriptors: 4 bits for those that it declares; 4 bits for those that come, 0 when as
// many as declared.
void sendFrame(Session& session, Input input, unsigned times) {
  const unsigned type = input.byte();
  const unsigned counts = input.byte();
  const unsigned pattern = input.byte();
  const std::size_t declared = (counts & 15u) == 15u ? limits::kMaximumDescriptors : counts & 15u;
  const std::size_t coming = counts >> 4 == 0 ? declared : (counts >> 4) - 1;
  const Bytes body = input.rest();
  const auto bytes = frameBytes(type, body.size(), declared, body);
  for (unsigned count = 0; count < times; ++count) {
    session.send(bytes, objects(coming, pattern), (pattern >> 5 & 7u) == 7u);
  }
}

int receiveErrorNamed(unsigned number) {
  static constexpr int kErrors[] = {0, 0, ECONNRESET, EIO, ENOMEM, ENOBUFS};
  return kErrors[number % std::size(kErrors)];
}

int sendErrorNamed(unsigned number) {
  static constexpr int kErrors[] = {EPIPE, ENOBUFS, ENOMEM, ETOOMANYREFS, ECONNRESET, EIO};
  return kErrors[number % std::size(kErrors)];
}

void peerStep(Session& session, unsigned step, Input input) {
  switch (step) {
    case 0:
      return sendFrame(session, input, 1);
    case 1:
      return session.send(input.rest());
    case 2:
      return session.setPieces(input.byte());
    case 3:
      return session.sayHello();
    case 4:
      return session.hangUp(receiveErrorNamed(input.byte()));
    case 5: {
      const std::size_t room = input.byte();
      return session.giveRoom(room == 255 ? SIZE_MAX : room * 16);
    }
    case 6:
      return session.failNextSend(sendErrorNamed(input.byte()));
    default:
      return sendFrame(session, input, input.byte() % 64u);
  }
}

void userStep(Session& session, unsigned step, Input input) {
  switch (step) {
    case 8:
      return session.greet();
    case 9:
      return session.callKeep(input.byte() * 64u);
    case 10:
      return session.tell(input.byte() * 64u);
    case 11:
      return session.introduce();
    case 12:
      return session.sendWhatCannotTravel();
    case 13:
      return session.answerKept(1 + input.byte() % 2u);
    case 14:
      return session.dropKept();
    case 15:
      return session.invalidate();
    case 16:
      return session.letGo();
    case 17:
      return session.resume();
    case 18:
      return ReactorDriver::letTimePass();
    case 19:
      FakeKernel::shared().watchError = ENOSPC;
      return;
    default:
      return;
  }
}

void run(Bytes bytes) {
  Input input(bytes);
  const unsigned options = input.byte();
  FakeKernel::shared().watchError = (options & 64u) != 0 ? ENOSPC : 0;
  FakeKernel::shared().connectError = (options & 16u) == 0 ? 0 : (options & 32u) != 0 ? EAGAIN : ECONNREFUSED;
  Session session((options & 2u) != 0 ? Session::Role::connects : Session::Role::accepts, (options & 4u) != 0,
                  (options & 8u) != 0);
  if ((options & 1u) != 0) session.sayHello();
  for (unsigned count = 0; count < kMaximumSteps && !input.isEmpty(); ++count) {
    Input part(input.part());
    const unsigned step = part.byte() % 20u;
    step < 8 ? peerStep(session, step, part) : userStep(session, step, part);
  }
  FakeKernel::shared().watchError = 0;
  FakeKernel::shared().connectError = 0;
  session.finish();
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace velto::fuzzing;
  formatLogAndDropIt();
  // Classes are known once they are asked for.
  travellingClasses();
  Session::prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
