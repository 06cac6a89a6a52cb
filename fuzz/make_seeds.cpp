// Writes the inputs that the fuzzers start from: real values, frames and calls, in the form that each fuzzer reads.
//
// usage: make_fuzz_seeds DIRECTORY    (one folder per fuzzer is made in it)

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/PeerStream.h"
#include "fuzz/support/Values.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::fuzzing {
namespace {

using Seed = std::vector<std::uint8_t>;
using wire::Frame;
using wire::FrameType;
using wire::ValueEncoder;

Seed operator+(Seed left, const Seed& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

class Folder {
 public:
  explicit Folder(std::filesystem::path path) : path_(std::move(path)) { std::filesystem::create_directories(path_); }

  void add(const Seed& seed) {
    std::ofstream file(path_ / ("seed-" + std::to_string(++last_)), std::ios::binary);
    file.write(reinterpret_cast<const char*>(seed.data()), static_cast<std::streamsize>(seed.size()));
  }

 private:
  const std::filesystem::path path_;
  unsigned last_ = 0;
};

std::vector<NSObject> values() {
  NSObject nested = NSArray{1};
  for (int level = 0; level < 40; ++level) nested = level % 2 == 0 ? NSObject(NSArray{nested}) : Box::holding(nested);
  const NSDate date = NSDate::dateWithTimeIntervalSince1970(1.7e9);
  return {nil,
          true,
          0,
          -1,
          1e300,
          NSNumber::numberWithUnsigned(7),
          UINT64_MAX,
          INT64_MIN,
          "text",
          "Grüße, 世界",
          NSNull::null(),
          NSData::dataWithBytes("data", 4),
          date,
          NSUUID::UUID(),
          NSURL::URLWithString("https://example.org/a?b=c"),
          NSArray{1, "two", 3.0, NSArray::array()},
          NSDictionary{{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}, {2, false}, {NSArray{1}, "key"}},
          NSSet{1, "one", NSSet::set(), NSSet{1}},
          NSError::errorWithDomain("org.velto.VeltoIPC", 3, {{"NSLocalizedDescription", "not today"}, {"why", date}}),
          Box::holding(NSDictionary{{"in", Box::holding("a box")}}),
          VKTLogAnchor::anchorWithFile("file.cpp", 12, "function"),
          NSArray{newEndpoint(), newFileDescriptor(), newEndpoint()},
          nested};
}

Frame frameOf(const NSObject& value, FrameType type = FrameType::call) {
  ValueEncoder encoder(type);
  encoder.add(value);
  return encoder.take();
}

Frame call(std::uint64_t identifier, const char* selector, bool wantsReply, const std::vector<NSObject>& arguments) {
  ValueEncoder encoder(FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, selector, wantsReply});
  for (const NSObject& each : arguments) encoder.add(each);
  return encoder.take();
}

Frame reply(std::uint64_t identifier, const NSObject& value) {
  ValueEncoder encoder(FrameType::reply);
  encoder.addUnsigned(identifier);
  encoder.add(value);
  return encoder.take();
}

std::vector<Frame> messages() {
  return {wire::Hello::ours().encode(),
          wire::Hello{1, 1024, 4, 4096, 2}.encode(),
          wire::Hello{2, 1, 2, 3, 4}.encode(),
          wire::Credit{0, 0}.encode(),
          wire::Credit{20, 1}.encode(),
          wire::Refusal{1, wire::kNoSuchMethod, "no such method"}.encode(FrameType::refusal),
          wire::Refusal{1, wire::kLimitExceeded, "too much"}.encode(FrameType::replyRefusal),
          wire::encodeReplyDropped(1),
          wire::encodeGoodbye()};
}

std::vector<Frame> calls() {
  std::vector<Frame> made;
  std::uint64_t identifier = 0;
  for (const NSObject& value : values()) made.push_back(call(++identifier, "echo:reply:", true, {value}));
  made.push_back(call(1, "greet:reply:", true, {"Ada"}));
  made.push_back(call(2, "keep:reply:", true, {NSDictionary{{"a", 1}}}));
  made.push_back(call(3, "tell:", false, {NSDictionary{{"news", NSArray{1, 2}}}}));
  made.push_back(call(4, "flag:", false, {true}));
  made.push_back(call(5, "introduce:reply:", true, {newEndpoint()}));
  made.push_back(call(6, "report:", false, {NSError::errorWithDomain("domain", 1, {{"why", 1}})}));
  made.push_back(call(7, "refuse", false, {}));
  made.push_back(call(8, "raise", false, {}));
  made.push_back(call(9, "wave", false, {}));
  made.push_back(call(10, "dance:", true, {"x"}));
  return made;
}

std::vector<Frame> replies() {
  return {reply(1, "hello"),     reply(1, NSDictionary{{"answer", 1}}), reply(1, newEndpoint()), reply(1, nil),
          reply(9, "to nobody"), reply(1, NSArray{NSNull::null()})};
}

Seed part(std::initializer_list<unsigned> head, const Seed& rest = {}) {
  Seed bytes;
  for (const unsigned each : head) bytes.push_back(static_cast<std::uint8_t>(each));
  return bytes + rest + Seed{0xFE, 0xED};
}

Seed frameStep(const Frame& frame) {
  return part({0, static_cast<unsigned>(frame.type), static_cast<unsigned>(frame.descriptors.size()), 0}, frame.body);
}

void makeValueSeeds(Folder values, Folder sets) {
  for (const NSObject& value : velto::fuzzing::values()) {
    const Frame frame = frameOf(value);
    const auto descriptors = static_cast<std::uint8_t>(frame.descriptors.size());
    values.add(Seed{descriptors} + frame.body);
    sets.add(Seed{0xFF, 0xFF, descriptors} + frame.body);
    sets.add(Seed{0xFF, 0x7F, descriptors} + frame.body);
    sets.add(Seed{0x0F, 0x00, descriptors} + frame.body);
  }
  for (const Frame& each : calls()) values.add(Seed{1u << 3} + each.body);
  for (const Frame& each : messages()) values.add(Seed{2u << 3} + each.body);
}

// Of each kind of object one, in its place within an array, a set, a dictionary and an error, and alone.
void makeWriterSeeds(Folder folder) {
  const Seed eight{0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10, 20};
  for (std::uint8_t kind = 0; kind < 29; ++kind) {
    const Seed object = Seed{kind, 5} + eight + Seed{3};
    folder.add(object);
    for (const std::uint8_t container : Seed{17, 19, 21}) folder.add(Seed{container, 2} + object + object);
    folder.add(Seed{23, 1, 'd'} + eight + Seed{1, 2} + object + object);
  }
  for (const std::uint8_t length : Seed{0, 1, 2, 3, 4, 5, 6, 7, 250, 251, 253, 254, 255}) {
    for (const std::uint8_t kind : Seed{6, 8, 10, 11, 13}) folder.add(Seed{17, 2, kind, length, 1, kind, length, 2});
    for (const std::uint8_t container : Seed{17, 19, 21}) folder.add(Seed{container, 15, length});
  }
  for (const std::uint8_t height : Seed{127, 128, 129}) {
    for (const std::uint8_t kinds : Seed{0, 1, 2, 3, 4, 17}) folder.add(Seed{26, height, kinds, 2} + eight);
  }
  folder.add(Seed{255});
}

void makeStreamSeeds(Folder folder) {
  Seed all;
  for (const Frame& each : calls()) {
    folder.add(Seed{0, 1, 255, static_cast<std::uint8_t>(each.descriptors.size())} + frameBytes(each));
    all = all + frameBytes(each);
  }
  for (const Frame& each : messages()) {
    folder.add(Seed{0, 2, 3, 0, 9, 0} + frameBytes(each));
    all = all + frameBytes(each);
  }
  folder.add(Seed{0, 3, 1, 0, 7, 0, 100, 2} + all);
  folder.add(Seed{0, 1, 255, 255} + frameBytes(2, 1u << 24, 64, {}));
  folder.add(Seed{0, 0} + frameBytes(2, (1u << 24) + 1, 0, {}));
  folder.add(Seed{1, 3, 0, 0, 4, 0, 60, 0} + Seed{9, 4, 0, 1, 2, 3, 4, 17, 1, 0, 5, 0, 0, 0});
}

void makeConnectionSeeds(Folder folder) {
  Seed conversation{1};
  for (const Frame& each : calls()) {
    folder.add(Seed{1} + frameStep(each));
    folder.add(Seed{9} + frameStep(each) + part({17}));
  }
  for (const Frame& each : messages()) folder.add(Seed{1} + frameStep(calls().back()) + part({8}) + frameStep(each));
  // Peers that state less than their calls and ours take.
  for (const auto& stated : {wire::Hello{1, 40, 1, 100, 1}, wire::Hello{1, 0, 0, 0, 0}}) {
    for (const Frame& each : calls()) folder.add(Seed{0} + frameStep(stated.encode()) + frameStep(each));
    folder.add(Seed{2} + frameStep(stated.encode()) + part({8}) + part({8}) + part({10, 2}) + part({11}));
  }
  for (const unsigned what : {8u, 9u, 11u}) {
    for (const Frame& each : replies()) folder.add(Seed{3} + part({what, 5}) + frameStep(each));
  }
  for (const Frame& each : calls()) conversation = conversation + frameStep(each);
  folder.add(conversation + part({13, 0}) + part({4, 0}));
  folder.add(Seed{1} + part({2, 3}) + frameStep(calls()[3]) + part({5, 1}) + part({9, 0, 16}) + part({5, 255}));
  folder.add(Seed{3} + part({5, 0}) + part({10, 0, 255}) + part({6, 1}) + part({18}) + part({15}));
  folder.add(Seed{3} + part({5, 0}) + part({10, 0, 255}) + part({16}) + part({5, 200}) + part({18}));
  folder.add(Seed{19} + part({18}) + part({8}) + part({12}));
  folder.add(Seed{51} + part({18}) + part({8}) + part({12}));
  folder.add(Seed{5} + frameStep(calls()[2]));
  folder.add(Seed{1} + part({7, 63, 2, 0, 0}, calls()[1].body) + part({14}) + part({4, 3}));
}

void makeBrokerSeeds(Folder folder) {
  const auto step = [](unsigned what, unsigned link, const Seed& rest) { return part({what, link}, rest); };
  const Seed a{1}, b{2}, own{'o', 'r', 'g', '.', 'v', 'e', 'l', 't', 'o'};
  folder.add(step(0, 0, Seed{0} + a) + step(3, 1, a) + step(3, 1, b) + step(5, 1, a) + step(3, 0, a));
  folder.add(step(0, 0, Seed{0} + own) + step(0, 1, Seed{1} + own) + step(3, 2, own) + step(7, 0, {1}) +
             step(3, 2, own));
  folder.add(step(0, 0, Seed{0} + a) + step(6, 0, {}) + step(3, 1, a) + step(7, 1, {0}));
  for (const unsigned kind : {0x10u, 0x20u, 0x30u, 0x40u})
    folder.add(step(0, 0, Seed{static_cast<std::uint8_t>(kind)} + a));
  for (const unsigned name : {250u, 251u, 252u, 253u, 255u}) {
    folder.add(step(0, 0, Seed{0, static_cast<std::uint8_t>(name)}) + step(3, 0, {static_cast<std::uint8_t>(name)}));
  }
  Seed many;
  for (unsigned count = 0; count < 8; ++count) {
    many = many + step(0, count, Seed{static_cast<std::uint8_t>(count), static_cast<std::uint8_t>(count)});
  }
  folder.add(many + step(3, 0, a) + step(10, 0, {}));
  // One process holds more than the other, which wants what there is no more of.
  const auto enter = [&](unsigned link, std::uint8_t name) { return step(0, link, Seed{0, name}); };
  folder.add(enter(0, 0) + enter(0, 1) + enter(1, 2) + enter(1, 3) + enter(3, 4) + enter(3, 5) + step(3, 3, {3}) +
             step(3, 3, {0}));
  folder.add(step(3, 0, a) + step(3, 1, a) + step(3, 2, a) + step(3, 0, a) + step(3, 3, a) + step(3, 0, b));
  folder.add(enter(0, 0) + enter(0, 1) + enter(0, 2) + step(6, 0, {}) + enter(0, 3) + enter(0, 4) + enter(1, 5) +
             step(5, 1, {0}) + enter(1, 5));
  // Taken over, waited for, given back; by two processes, to the limits of those that wait.
  folder.add(step(13, 1, Seed{0} + a) + step(11, 0, Seed{0, 0} + a) + step(14, 0, Seed{2} + a) +
             step(11, 3, Seed{1, 1} + a) + step(11, 3, Seed{1, 0} + a) + step(14, 0, Seed{2} + a) +
             step(12, 0, Seed{0} + a) + step(12, 3, Seed{0} + a));
  const Seed waits = step(13, 0, Seed{0} + a) + step(13, 0, Seed{0} + b) + step(14, 1, Seed{0} + a);
  folder.add(waits + step(13, 0, Seed{0} + a) + step(13, 3, Seed{0} + a) + step(13, 3, Seed{0} + b) +
             step(13, 3, Seed{0} + a) + step(0, 2, Seed{0} + a) + step(6, 0, {}) + step(0, 2, Seed{0} + b));
  for (const Frame& each : messages()) {
    folder.add(step(0, 0, Seed{0} + a) + step(9, 0, Seed{static_cast<std::uint8_t>(each.type)} + each.body) +
               step(3, 0, a));
  }
  for (unsigned selector = 0; selector < 5; ++selector) {
    folder.add(step(8, 0, Seed{static_cast<std::uint8_t>(selector), 0x61, 'a'}) + step(3, 0, a));
  }
}

void make(const std::filesystem::path& directory) {
  makeValueSeeds(Folder(directory / "value_decoder"), Folder(directory / "class_sets"));
  makeWriterSeeds(Folder(directory / "value_writer"));
  makeStreamSeeds(Folder(directory / "frame_reader"));
  makeConnectionSeeds(Folder(directory / "connection"));
  makeBrokerSeeds(Folder(directory / "broker_requests"));
}

}  // namespace
}  // namespace velto::fuzzing

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: make_fuzz_seeds DIRECTORY\n");
    return 2;
  }
  velto::fuzzing::FakeKernel::shared();
  velto::fuzzing::make(arguments[1]);
}
