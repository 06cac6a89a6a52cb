// Peers that break the limits of a frame. What can be told apart from the rest of the stream is refused; what cannot
// cuts the peer off, and a line of the log says which limit, the value and the maximum. Others go on.

#include <fcntl.h>

#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"

namespace velto::testing {
namespace {

using Bytes = std::vector<std::uint8_t>;

class Peers : public LimitTest {
 protected:
  RawEnd peer() {
    auto made = RawEnd::connectedTo(service->endpoint());
    made.greet();
    return made;
  }
  // The peer's call is answered.
  static void expectAnswer(RawEnd& peer, std::uint64_t identifier) {
    peer.send(callFrame(identifier, NSDictionary{{"still", "there"}}, true));
    const auto reply = peer.next(wire::FrameType::reply);
    ASSERT_TRUE(reply);
    EXPECT_EQ(wire::ValueDecoder(*reply).nextUnsigned(), identifier);
  }
  // The next refusal says this.
  static void expectRefused(RawEnd& peer, const std::string& words) {
    const auto frame = peer.next(wire::FrameType::refusal);
    ASSERT_TRUE(frame);
    std::string reason;
    const auto refusal = wire::Refusal::decode(*frame, reason);
    ASSERT_TRUE(refusal) << reason;
    EXPECT_NE(refusal->text.find(words), std::string::npos) << refusal->text;
  }
  void expectCutOff(RawEnd& peer, const std::string& words) {
    EXPECT_TRUE(peer.isCutOff());
    EXPECT_TRUE(log.waitForContaining(0, words));
    EXPECT_TRUE(Client(service->endpoint()).works());
  }

  const std::shared_ptr<Service> service = Service::start();
};

Bytes headerOf(std::uint32_t bodyLength, std::uint16_t descriptors) {
  const auto header = wire::FrameHeader{bodyLength, wire::FrameType::call, descriptors}.encode();
  return {header.begin(), header.end()};
}

TEST_F(Peers, MaySendTheGreatestFrameAndAreCutOffForALengthOverIt) {
  RawEnd peer = this->peer();
  const std::size_t around = callFrame(1, dataOf(1 << 16), true).body.size() - (1 << 16);
  peer.send(callFrame(1, dataOf(limits::kMaximumFrameBytes - around), true));
  EXPECT_TRUE(peer.next(wire::FrameType::reply));
  peer.send(headerOf(limits::kMaximumFrameBytes + 1, 0));
  expectCutOff(peer, "bytes of a frame: 16777217, maximum 16777216");
}

TEST_F(Peers, MaySendTheMostDescriptorsAndAreCutOffForOneMoreDeclared) {
  RawEnd peer = this->peer();
  auto most = callFrame(1, NSDictionary{{"a", "b"}}, true);
  for (std::size_t count = 0; count < limits::kMaximumDescriptors; ++count) {
    most.descriptors.push_back(
        std::make_shared<const system::Descriptor>(system::Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC))));
  }
  peer.send(most);
  EXPECT_TRUE(peer.next(wire::FrameType::reply)) << "descriptors that no value names are only closed";
  peer.send(headerOf(1, limits::kMaximumDescriptors + 1));
  expectCutOff(peer, "descriptors of a frame: 65, maximum 64");
}

// A dictionary with a value of so many nested arrays.
Bytes nestedBytes(std::size_t levels) {
  Bytes bytes{0xa1, 0x61, 'n'};
  bytes.insert(bytes.end(), levels - 1, 0x81);
  bytes.back() = 0x80;
  return bytes;
}

TEST_F(Peers, MaySendTheDeepestValueAndAreRefusedForOneLevelMore) {
  RawEnd peer = this->peer();
  peer.send(callFrameAround(1, nestedBytes(limits::kMaximumDepth), true));
  EXPECT_TRUE(peer.next(wire::FrameType::reply));
  peer.send(callFrameAround(2, nestedBytes(limits::kMaximumDepth + 1), true));
  expectRefused(peer, "levels of nesting: 129 or more, maximum 128");
  expectAnswer(peer, 3);
}

// A dictionary with an array of so many objects, those around it included.
Bytes objectBytes(std::size_t count) {
  const std::size_t elements = count - 3;
  Bytes bytes{0xa1, 0x61, 'n', 0x9a};
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(elements >> shift));
  bytes.insert(bytes.end(), elements, 0xf6);
  return bytes;
}

TEST_F(Peers, AreRefusedForOneObjectTooMany) {
  RawEnd peer = this->peer();
  // The identifier of the peer protocol's call is one too.
  peer.send(callFrameAround(1, objectBytes(limits::kMaximumObjects), true));
  expectRefused(peer, "objects: 2097153 or more, maximum 2097152");
  expectAnswer(peer, 2);
}

wire::Frame callOf(const std::string& selector) {
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body = {0x01, 0x79, static_cast<std::uint8_t>(selector.size() >> 8),
                static_cast<std::uint8_t>(selector.size() & 0xff)};
  frame.body.append({reinterpret_cast<const std::uint8_t*>(selector.data()), selector.size()});
  frame.body.push_back(0xf4);
  return frame;
}

TEST_F(Peers, MayNameTheLongestSelectorAndAreCutOffForALongerOne) {
  RawEnd peer = this->peer();
  peer.send(callOf(std::string(limits::kMaximumSelectorBytes, 's')));
  expectRefused(peer, "no such method");
  peer.send(callOf(std::string(limits::kMaximumSelectorBytes + 1, 's')));
  expectCutOff(peer, "call: bytes of a text: 257, maximum 256");
}

// A refusal of call 1.
wire::Frame refusalOf(std::size_t bytes) {
  wire::Frame frame;
  frame.type = wire::FrameType::refusal;
  frame.body = {0x01, 0x02, 0x79, static_cast<std::uint8_t>(bytes >> 8), static_cast<std::uint8_t>(bytes & 0xff)};
  frame.body.append(std::vector<std::uint8_t>(bytes, 'r'));
  return frame;
}

TEST_F(Peers, MayRefuseForTheLongestReasonAndAreCutOffForALongerOne) {
  for (const std::size_t bytes : {limits::kMaximumReasonBytes, limits::kMaximumReasonBytes + 1}) {
    RawListener listener;
    Client client(listener.endpoint());
    auto answer = client.ask({{"a", "b"}});
    RawEnd peer = listener.accept();
    peer.greet();
    ASSERT_TRUE(peer.next(wire::FrameType::call));
    peer.send(refusalOf(bytes));
    EXPECT_TRUE(finish(answer).isNil());
    const std::string text = client.error().localizedDescription().string();
    const bool isTold = text.find(std::string(bytes, 'r')) != std::string::npos;
    EXPECT_EQ(isTold, bytes == limits::kMaximumReasonBytes) << text;
    // The line is written by a thread of its own.
    EXPECT_TRUE(isTold || log.waitForContaining(0, "maximum 1024"));
    EXPECT_EQ(log.containing(0, "bytes of a text: 1025, maximum 1024").size(), isTold ? 0u : 1u) << log.text();
  }
}

}  // namespace
}  // namespace velto::testing
