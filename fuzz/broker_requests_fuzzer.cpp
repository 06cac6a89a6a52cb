// The broker against a map. Links of two processes call it with names and endpoints of all sorts, end, and send what no
// client sends; listeners end; the kernel runs out of descriptors; they wait for what becomes of names. Every answer,
// and the number of names, links and waiters after every step, must be what a plain map says; and so must be which
// link, which name and which waiter make room for another, and who is told when.
//
// The input is a script: steps, each up to the next separator. A byte says what is done, a byte over which of four
// links, and the rest is the name, or whatever the step needs.

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "daemon/Broker.h"
#include "fuzz/support/BrokerModel.h"
#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/PeerStream.h"
#include "fuzz/support/Quiet.h"
#include "fuzz/support/ReactorDriver.h"
#include "fuzz/support/Require.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/wire/ItemWriter.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::fuzzing {
namespace {

constexpr Budget kBudget{
    // A broker and four links of 70 kB each. Measured: 285 kB held, and 450 kB allocated by an input of 87 bytes; a
    // step of two bytes may make a link.
    .heldBytes = 512 << 10,
    .heldBytesPerByte = 4096,
    .allocatedBytes = 512 << 10,
    .allocatedBytesPerByte = 65536,
    // Measured: 4 ms at most.
    .time = std::chrono::milliseconds(100),
    .timePerByte = std::chrono::microseconds(200),
};

// Small, so that they are met.
constexpr BrokerLimits kLimits{
    .names = 5, .namesOfOneProcess = 4, .namesOfOneLink = 3, .links = 3, .waiters = 4, .waitersOfOneProcess = 3};
constexpr std::size_t kProcesses = 2;
constexpr unsigned kMaximumSteps = 16;
constexpr const char* kRegister = "sendListenerConnection:withName:";
constexpr const char* kLookUp = "findListenerEndpointForName:handle:";
constexpr const char* kKill = "killListenerConnection:";
constexpr const char* kRegisterName = "registerName:endpoint:takingOver:answer:";
constexpr const char* kGiveBack = "giveBackName:registration:";
constexpr const char* kWaitForName = "waitForName:seconds:handle:";
constexpr const char* kWaitForChange = "waitForChangeOfName:knownRegistration:answer:";

FakeKernel& kernel() {
  return FakeKernel::shared();
}

const std::shared_ptr<NSXPCListener>& listener() {
  static const auto& made = *new std::shared_ptr<NSXPCListener>(NSXPCListener::anonymousListener());
  return made;
}

std::size_t openAtRest = 0;

// A name in a call: nil, or any bytes.
struct Name {
  bool isNil = false;
  std::string text;
};

// Short names are those that meet again; long ones stand around the limit.
Name readName(Input& input) {
  const Bytes bytes = input.rest();
  if (bytes.size() != 1) return {false, std::string(textOf(bytes))};
  const unsigned choice = bytes[0];
  if (choice == 255) return {true, {}};
  if (choice >= 250) return {false, std::string(253 + choice % 250, 'x')};
  return {false, std::string(1, static_cast<char>('a' + choice % 8))};
}

struct Endpoint {
  SharedObject handle = std::make_shared<KernelObject>(ObjectKind::handle);
  SharedObject pipe = std::make_shared<KernelObject>(ObjectKind::readEnd);
};

struct Link {
  SharedObject stream;
  std::uint64_t number = 0;
  std::size_t process = 0;
  std::uint64_t lastCall = 0;
  // Of all calls of all links, the last one of this.
  std::uint64_t lastUse = 0;
  // It has said what the broker may have taken for a call or not.
  bool isVague = false;
  std::size_t read = 0;
  bool hasCalled = false;

  bool isAlive() const { return stream && !stream->isClosed; }
};

class Play {
 public:
  Play() { listener()->setDelegate(broker_); }

  void step(Input part);
  void finish();

 private:
  Link& linkAt(unsigned slot);
  // Sends a call; the frames that came back. False when the link had to be refused, or ended.
  bool call(Link& link, const char* selector, bool wantsReply, Bytes arguments, std::vector<SharedObject> objects,
            std::vector<wire::Frame>& answers);
  std::vector<wire::Frame> answersOf(Link& link);
  // By the older method, or by the newer.
  void registerName(Link& link, Input& input, bool isNewer);
  void giveBack(Link& link, Input& input);
  void wait(Link& link, Input& input, bool isForName);
  void lookUp(Link& link, const Name& name);
  void kill(Link& link, const Name& name);
  void callWithAnything(Link& link, const char* selector, Bytes arguments);
  void sendAnything(Link& link, Input& input);
  void endListener(std::size_t index);
  std::size_t linksOf(std::size_t process) const;
  // The link that has to go; null when there is room, or nobody makes it.
  Link* linkToGo(std::size_t process);
  void dropGone();
  std::size_t keptLinks() const;
  void compare();

  std::shared_ptr<Broker> broker_ = Broker::make(kLimits);
  std::array<Link, 4> links_;
  std::array<SharedObject, kProcesses> processes_{FakeKernel::makeProcess(1), FakeKernel::makeProcess(2)};
  std::uint64_t lastLink_ = 0;
  std::uint64_t lastUse_ = 0;
  std::array<Endpoint, 4> endpoints_;
  BrokerModel model_{kLimits};
};

// What a reply holds behind the number of its call.
NSObject valueOf(const wire::Frame& reply, std::uint64_t& call) {
  static const wire::ClassSet& plain =
      *new wire::ClassSet(NSSet{NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(),
                                NSXPCListenerEndpoint::classObject()});
  wire::ValueDecoder decoder(reply);
  NSObject number, value;
  decoder.next(plain, number);
  call = number.to<std::uint64_t>().value_or(0);
  decoder.next(plain, value);
  return value;
}

void addEndpoint(wire::ItemWriter& writer, bool isNil) {
  if (isNil) return writer.addUndefined();
  writer.addTag(27);
  writer.addArray(2);
  writer.addText("NSXPCListenerEndpoint");
  writer.addArray(2);
  writer.addUnsigned(0);
  writer.addUnsigned(1);
}

void addName(wire::ItemWriter& writer, const Name& name) {
  name.isNil ? writer.addUndefined() : writer.addText(name.text);
}

wire::ByteBuffer written(const std::function<void(wire::ItemWriter&)>& write) {
  wire::ItemWriter writer;
  write(writer);
  return writer.finish();
}

Link& Play::linkAt(unsigned slot) {
  Link& link = links_[slot % links_.size()];
  if (link.isAlive()) return link;
  link = {};
  link.number = ++lastLink_;
  // Three links of the one, one of the other: so the first can hold clearly more.
  link.process = slot % links_.size() == 3 ? 1 : 0;
  link.stream = kernel().connects(processes_[link.process]);
  const auto hello = frameBytes(wire::Hello::ours().encode());
  kernel().arrives(link.stream, {hello, {}, false});
  ReactorDriver::runUntilIdle();
  answersOf(link);
  return link;
}

std::vector<wire::Frame> Play::answersOf(Link& link) {
  std::vector<wire::Frame> frames;
  const Bytes sent(link.stream->sent);
  while (link.read < sent.size()) {
    const Bytes left = sent.subspan(link.read);
    require(left.size() >= 8, "what is sent is whole");
    const std::size_t length = 8 + (left[0] | std::size_t{left[1]} << 8 | std::size_t{left[2]} << 16);
    require(left.size() >= length, "what is sent is whole");
    wire::Frame frame;
    frame.type = static_cast<wire::FrameType>(left[4]);
    frame.body.append(std::span(left).subspan(8, length - 8));
    link.read += length;
    if (frame.type == wire::FrameType::reply) {
      std::uint64_t call = 0;
      valueOf(frame, call);
      const auto told = std::ranges::find_if(
          model_.waits, [&](const BrokerModel::Wait& each) { return each.link == link.number && each.call == call; });
      if (told != model_.waits.end()) {
        require(!told->isTold, "who waits is told once");
        told->isTold = true;
        continue;
      }
    }
    frames.push_back(std::move(frame));
  }
  return frames;
}

bool Play::call(Link& link, const char* selector, bool wantsReply, Bytes arguments, std::vector<SharedObject> objects,
                std::vector<wire::Frame>& answers) {
  Link* const leaving = link.hasCalled ? nullptr : linkToGo(link.process);
  const bool hasRoom = link.hasCalled || leaving != nullptr || keptLinks() < kLimits.links;
  auto body = written([&](wire::ItemWriter& writer) {
    writer.addUnsigned(++link.lastCall);
    writer.addText(selector);
    writer.addBool(wantsReply);
  });
  body.append(arguments);
  const std::size_t count = objects.size();
  kernel().arrives(link.stream, {frameBytes(2, body.size(), count, body), std::move(objects), false});
  ReactorDriver::runUntilIdle();
  link.hasCalled = true;
  link.lastUse = ++lastUse_;
  answers = answersOf(link);
  const bool isVague = std::ranges::any_of(links_, [](const Link& each) { return each.isVague; });
  require(leaving == nullptr || isVague || !leaving->isAlive(), "the link that is idle for longest makes room");
  require(hasRoom || !link.isAlive(), "a link over the limit is turned away");
  return hasRoom && link.isAlive();
}

std::size_t Play::linksOf(std::size_t process) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      links_, [&](const Link& link) { return link.isAlive() && link.hasCalled && link.process == process; }));
}

Link* Play::linkToGo(std::size_t process) {
  const std::size_t other = 1 - process;
  if (keptLinks() < kLimits.links || linksOf(other) <= linksOf(process) + 1) return nullptr;
  Link* idle = nullptr;
  for (Link& link : links_) {
    if (!link.isAlive() || !link.hasCalled || link.process != other) continue;
    if (idle == nullptr || link.lastUse < idle->lastUse) idle = &link;
  }
  return idle;
}

void Play::registerName(Link& link, Input& input, bool isNewer) {
  const unsigned choice = input.byte();
  const bool takesOver = !isNewer || input.byte() % 2 == 0;
  const std::size_t index = choice % endpoints_.size();
  const Name name = readName(input);
  // 3 bits: which endpoint, or none, or one that is none; or the kernel has nothing left to watch it with.
  const unsigned kind = choice >> 4;
  const bool isNil = kind == 1, isWrong = kind == 2;
  std::vector<SharedObject> objects{endpoints_[index].handle, endpoints_[index].pipe};
  if (isWrong) std::swap(objects[0], objects[1]);
  const auto arguments = written([&](wire::ItemWriter& writer) {
    if (isNewer) addName(writer, name);
    addEndpoint(writer, isNil);
    isNewer ? writer.addBool(takesOver) : addName(writer, name);
  });
  // Refused before it is a call.
  link.isVague = link.isVague || isWrong;
  if (kind == 3) kernel().duplicateError = EMFILE;
  if (kind == 4) kernel().watchError = ENOSPC;
  std::vector<wire::Frame> answers;
  const bool isTaken = call(link, isNewer ? kRegisterName : kRegister, isNewer, arguments,
                            isNil ? std::vector<SharedObject>() : objects, answers);
  kernel().duplicateError = kernel().watchError = 0;
  // Arguments are read one after the other, up to the first that is refused.
  const bool isBroken = (isNewer || !isWrong) && !isValidUTF8(name.text);
  require(!isBroken || !link.isAlive(), "a name that is not UTF-8 breaks the protocol");
  if (!isTaken) return;
  // A pipe that is watched for another name need not be watched anew.
  const bool isWatched =
      std::ranges::any_of(model_.names, [&](const auto& each) { return each.second.endpoint == index; });
  const bool mayBe = kind == 0 || kind > 4 || (kind > 2 && isWatched);
  const bool isNamed = !name.isNil && BrokerModel::isName(name.text);
  const auto standing = isNamed ? model_.names.find(name.text) : model_.names.end();
  const bool isLeft = !takesOver && standing != model_.names.end() && standing->second.endpoint != index;
  const bool isGone = endpoints_[index].pipe->hasHungUp;
  std::uint64_t number = 0;
  NSObject answer;
  if (isNewer && !isWrong) {
    require(answers.size() == 1 && answers[0].type == wire::FrameType::reply, "who registers is answered");
    std::uint64_t answered = 0;
    answer = valueOf(answers[0], answered);
    require(answered == link.lastCall, "who registers is answered");
    number = answer["registration"].to<std::uint64_t>().value_or(0);
  }
  if (mayBe && isLeft) {
    require(isGone || answer["taken"].boolValue(), "who registers hears that another has the name");
    require(number == 0 || standing->second.registration == 0 || standing->second.registration == number,
            "and which registration it is");
    return;
  }
  if (mayBe && !name.isNil && model_.mayRegister(link.number, link.process, name.text)) {
    require(isNewer || answers.empty(), "a registration is taken without a word");
    require(!isNewer || (number != 0 && answer["taken"].isNil()) || isGone, "who registers hears that it stands");
    model_.makeRoomForName(link.process, name.text);
    model_.changed(name.text);
    model_.names[name.text] = {index, link.number, link.process, ++lastUse_, number};
    dropGone();
    return;
  }
  if (isNewer && !isWrong) {
    require(!answer["refused"].isNil() || isGone, "who registers hears why it is refused");
    return;
  }
  std::string reason;
  require(answers.size() == 1 && answers[0].type == wire::FrameType::refusal, "a registration is refused");
  const auto refusal = wire::Refusal::decode(answers[0], reason);
  require(refusal && refusal->identifier == link.lastCall && !refusal->text.empty(), "a refusal says what and why");
}

void Play::giveBack(Link& link, Input& input) {
  const unsigned choice = input.byte();
  const Name name = readName(input);
  const auto standing = name.isNil ? model_.names.end() : model_.names.find(name.text);
  const std::uint64_t own = standing != model_.names.end() ? standing->second.registration : 0;
  const std::uint64_t number = choice % 2 == 0 ? own : std::uint64_t{1} << 40;
  std::vector<wire::Frame> answers;
  const auto arguments = written([&](wire::ItemWriter& writer) {
    addName(writer, name);
    writer.addUnsigned(number);
  });
  const bool isTaken = call(link, kGiveBack, false, arguments, {}, answers);
  require(isValidUTF8(name.text) || !link.isAlive(), "a name that is not UTF-8 breaks the protocol");
  if (!isTaken) return;
  require(answers.empty(), "a name is given back without a word");
  const auto now = name.isNil ? model_.names.end() : model_.names.find(name.text);
  if (now != model_.names.end() && number != 0 && now->second.registration == number &&
      now->second.process == link.process) {
    model_.forget(now);
  }
}

void Play::wait(Link& link, Input& input, bool isForName) {
  const unsigned choice = input.byte();
  const Name name = readName(input);
  const auto standing = name.isNil ? model_.names.end() : model_.names.find(name.text);
  const std::uint64_t own = standing != model_.names.end() ? standing->second.registration : 0;
  const std::uint64_t known = isForName || choice % 4 == 0 ? 0 : choice % 4 == 1 ? std::uint64_t{1} << 40 : own;
  std::vector<wire::Frame> answers;
  const auto arguments = written([&](wire::ItemWriter& writer) {
    addName(writer, name);
    isForName ? writer.addUndefined() : writer.addUnsigned(known);
  });
  const bool isTaken = call(link, isForName ? kWaitForName : kWaitForChange, true, arguments, {}, answers);
  require(isValidUTF8(name.text) || !link.isAlive(), "a name that is not UTF-8 breaks the protocol");
  if (!isTaken) return;
  const bool isNamed = !name.isNil && BrokerModel::isName(name.text);
  // A link that was new may have pushed another out, and its waiters with it.
  std::erase_if(model_.waits, [this](const BrokerModel::Wait& each) {
    return std::ranges::none_of(links_, [&](const Link& live) { return live.isAlive() && live.number == each.link; });
  });
  const bool stands = model_.names.contains(name.text);
  if (isNamed && (stands ? known == 0 || known != own : known != 0)) {
    require(answers.size() == 1 && answers[0].type == wire::FrameType::reply, "what is so already is told at once");
    return;
  }
  BrokerModel::Wait* leaving = nullptr;
  if (isNamed && model_.mayWait(link.process, leaving)) {
    require(answers.empty(), "who waits is told nothing yet");
    if (leaving != nullptr) leaving->isDue = true;
    model_.waits.push_back({link.number, link.process, link.lastCall, name.text});
    return;
  }
  require(answers.size() == 1 && answers[0].type == wire::FrameType::refusal, "a wait is refused");
}

void Play::lookUp(Link& link, const Name& name) {
  const std::size_t before = link.stream->sentObjects.size();
  std::vector<wire::Frame> answers;
  const auto arguments = written([&](wire::ItemWriter& writer) { addName(writer, name); });
  const bool isTaken = call(link, kLookUp, true, arguments, {}, answers);
  require(isValidUTF8(name.text) || !link.isAlive(), "a name that is not UTF-8 breaks the protocol");
  if (!isTaken) return;
  require(answers.size() == 1 && answers[0].type == wire::FrameType::reply, "a look-up is answered");
  const auto& sent = link.stream->sentObjects;
  const auto found = name.isNil ? model_.names.end() : model_.names.find(name.text);
  if (found == model_.names.end()) {
    require(answers[0].body.back() == 0xF7 && sent.size() == before, "nothing is found under another name");
    return;
  }
  const Endpoint& endpoint = endpoints_[found->second.endpoint];
  require(sent.size() == before + 2 && sent[before] == endpoint.handle && sent[before + 1] == endpoint.pipe,
          "the last endpoint of a name is found");
}

void Play::kill(Link& link, const Name& name) {
  std::vector<wire::Frame> answers;
  const auto arguments = written([&](wire::ItemWriter& writer) { addName(writer, name); });
  const bool isTaken = call(link, kKill, false, arguments, {}, answers);
  require(isValidUTF8(name.text) || !link.isAlive(), "a name that is not UTF-8 breaks the protocol");
  if (!isTaken) return;
  require(answers.empty(), "a name is dropped without a word");
  if (!name.isNil) model_.forget(model_.names.find(name.text));
}

void Play::callWithAnything(Link& link, const char* selector, Bytes arguments) {
  std::vector<wire::Frame> answers;
  const bool isTaken = call(link, selector, false, arguments, {}, answers);
  link.isVague = true;
  if (!isTaken || selector != kKill) return;
  // It may have been a name after all.
  static const wire::ClassSet& strings = *new wire::ClassSet(NSSet{NSString::classObject()});
  wire::Frame frame;
  frame.body.append(arguments);
  wire::ValueDecoder decoder(frame);
  NSObject name;
  if (decoder.next(strings, name) == wire::ValueDecoder::Outcome::value && decoder.atEnd() && !name.isNil()) {
    model_.forget(model_.names.find(std::string(name.stringValue())));
  }
}

void Play::sendAnything(Link& link, Input& input) {
  unsigned type = input.byte();
  if (type == 2) type = 0;
  const Bytes body = input.rest();
  kernel().arrives(link.stream, {frameBytes(type, body.size(), 0, body), {}, false});
  ReactorDriver::runUntilIdle();
  answersOf(link);
}

void Play::endListener(std::size_t index) {
  Endpoint& endpoint = endpoints_[index % endpoints_.size()];
  kernel().hangsUp(endpoint.pipe);
  ReactorDriver::runUntilIdle();
  dropGone();
}

void Play::dropGone() {
  for (auto next = model_.names.begin(); next != model_.names.end();) {
    const auto each = next++;
    if (endpoints_[each->second.endpoint].pipe->hasHungUp) model_.forget(each);
  }
}

std::size_t Play::keptLinks() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(links_, [](const Link& link) { return link.isAlive() && link.hasCalled; }));
}

void Play::step(Input part) {
  const unsigned what = part.byte() % 15;
  Link& link = linkAt(part.byte());
  switch (what) {
    case 3:
    case 4:
      lookUp(link, readName(part));
      break;
    case 5:
      kill(link, readName(part));
      break;
    case 6:
      kernel().ends(link.stream);
      ReactorDriver::runUntilIdle();
      break;
    case 7:
      endListener(part.byte());
      break;
    case 8: {
      static constexpr const char* kSelectors[] = {kRegister, kLookUp, kKill, "", "ping"};
      callWithAnything(link, kSelectors[part.byte() % std::size(kSelectors)], part.rest());
      break;
    }
    case 9:
      sendAnything(link, part);
      break;
    case 10:
      ReactorDriver::letTimePass();
      break;
    case 11:
      registerName(link, part, true);
      break;
    case 12:
      giveBack(link, part);
      break;
    case 13:
    case 14:
      wait(link, part, what == 13);
      break;
    default:
      registerName(link, part, false);
      break;
  }
  compare();
}

void Play::compare() {
  for (Link& link : links_) {
    if (link.isAlive()) require(answersOf(link).empty(), "nobody is told what nobody has asked");
  }
  std::erase_if(model_.waits, [this](const BrokerModel::Wait& each) {
    const bool isThere =
        std::ranges::any_of(links_, [&](const Link& link) { return link.isAlive() && link.number == each.link; });
    require(!isThere || each.isDue == each.isTold, "who waits is told when it is so, and not before");
    return !isThere || each.isDue;
  });
  require(broker_->waiterCount() == model_.waits.size(), "as many wait as are still to be told");
  require(broker_->nameCount() == model_.names.size(), "as many names stand as were registered");
  require(broker_->linkCount() == keptLinks(), "as many links are kept as live");
}

void Play::finish() {
  for (Link& link : links_) {
    if (link.isAlive()) kernel().ends(link.stream);
  }
  ReactorDriver::runUntilIdle();
  compare();
  require(broker_->linkCount() == 0, "links that have ended are let go of");
  for (std::size_t index = 0; index < endpoints_.size(); ++index) endListener(index);
  require(broker_->nameCount() == 0, "a registration ends with its listener");
  for (const Link& link : links_) require(!link.isAlive(), "the socket is closed");
  const std::weak_ptr<Broker> life = broker_;
  broker_.reset();
  require(life.expired(), "nothing holds the broker");
  ReactorDriver::letTimePass();
  require(kernel().openDescriptors() == openAtRest, "no descriptor stays open");
}

void run(Bytes bytes) {
  Input input(bytes);
  Play play;
  for (unsigned count = 0; count < kMaximumSteps && !input.isEmpty(); ++count) play.step(Input(input.part()));
  play.finish();
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace velto::fuzzing;
  formatLogAndDropIt();
  ReactorDriver::takeOver();
  listener()->resume();
  ReactorDriver::runUntilIdle();
  openAtRest = FakeKernel::shared().openDescriptors();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
