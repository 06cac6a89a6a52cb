// The limits of one call and one reply, each over a connection: at the limit it arrives; one over, the sender's proxy
// says which limit, the value and the maximum; and the connection goes on.

#include <algorithm>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"

namespace velto::testing {
namespace {

class Calls : public LimitTest {
 protected:
  const std::shared_ptr<Service> service = Service::start();
};

NSData mappedData(std::size_t bytes) {
  const int memory = ::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(::posix_fallocate(memory, 0, static_cast<off_t>(bytes)), 0);
  EXPECT_EQ(::fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE), 0);
  const NSData data = NSData::dataMappingDescriptor(memory, bytes);
  ::close(memory);
  return data;
}

TEST_F(Calls, WithTheMostDataBesideTheirFrameArriveInBothDirectionsAndOneByteMoreIsRefused) {
  Client client(service->endpoint());
  service->exported->onMessage([](const NSDictionary& message, const VeltoReplyHandler& reply) {
    const std::size_t length = message["data"].as<NSData>().length();
    reply({{"length", length}, {"data", mappedData(message["wanted"].unsignedIntegerValue())}});
  });
  for (int round = 0; round < 4; ++round) {
    auto greatest =
        client.ask({{"data", mappedData(limits::kMaximumRegionBytes)}, {"wanted", limits::kMaximumRegionBytes}});
    const NSDictionary reply = finish(greatest);
    EXPECT_EQ(reply["length"].unsignedIntegerValue(), limits::kMaximumRegionBytes);
    EXPECT_EQ(reply["data"].as<NSData>().length(), limits::kMaximumRegionBytes);
  }
  client.tell({{"data", mappedData(limits::kMaximumRegionBytes + 1)}});
  expectRefusal(client.error(), NSXPCLimitExceeded,
                "bytes of data beside a frame: 1073741825 or more, maximum 1073741824");
  auto over = client.ask({{"wanted", limits::kMaximumRegionBytes + 1}});
  EXPECT_TRUE(finish(over).isNil());
  expectRefusal(client.error(2), NSXPCLimitExceeded,
                "bytes of data beside a frame: 1073741825 or more, maximum 1073741824");
  service->exported->echo();
  EXPECT_TRUE(client.works());
}

TEST_F(Calls, OfTheGreatestSizeArriveAndOneByteMoreIsRefused) {
  Client client(service->endpoint());
  const auto arrived = std::make_shared<std::promise<std::size_t>>();
  service->exported->onMessage([arrived](const NSDictionary& message, const VeltoReplyHandler&) {
    arrived->set_value(message["data"].as<NSData>().length());
  });
  const NSDictionary greatest = client.messageOfBodyBytes(limits::kMaximumFrameBytes, false);
  client.tell(greatest);
  auto length = arrived->get_future();
  EXPECT_EQ(finish(length), greatest["data"].as<NSData>().length());
  client.tell(asText(client.messageOfBodyBytes(limits::kMaximumFrameBytes + 1, false)));
  expectRefusal(client.error(), NSXPCLimitExceeded, "bytes of a frame: 16777217 or more, maximum 16777216");
  service->exported->echo();
  EXPECT_TRUE(client.works());
  EXPECT_EQ(client.errors.all().size(), 1u);
}

TEST_F(Calls, WhoseRepliesHaveTheGreatestSizeAreAnsweredAndOneByteMoreIsRefused) {
  Client client(service->endpoint());
  // A reply is a number of one byte for its call, and the value.
  const std::size_t some = std::size_t{1} << 16;
  const std::size_t around =
      bodyBytes(1, dataOf(some), true) - bodyBytes(1, NSDictionary::dictionary(), true) + 1 - some;
  const std::size_t number = 1;
  const std::size_t most = limits::kMaximumFrameBytes - around - number;
  service->exported->onMessage([](const NSDictionary& message, const VeltoReplyHandler& reply) {
    const NSDictionary data = dataOf(message["bytes"].unsignedIntegerValue());
    reply(message["as text"].boolValue() ? asText(data) : data);
  });
  auto greatest = client.ask({{"bytes", most}});
  EXPECT_EQ(finish(greatest)["data"].as<NSData>().length(), most);
  auto beside = client.ask({{"bytes", most + 1}});
  EXPECT_EQ(finish(beside)["data"].as<NSData>().length(), most + 1);
  auto over = client.ask({{"bytes", most + 1}, {"as text", true}});
  EXPECT_TRUE(finish(over).isNil());
  expectRefusal(client.error(), NSXPCLimitExceeded, "bytes of a frame: 16777217 or more, maximum 16777216");
  auto again = client.ask({{"bytes", 1}});
  EXPECT_EQ(finish(again)["data"].as<NSData>().length(), 1u);
}

NSDictionary nested(std::size_t levels) {
  NSObject value = NSArray::array();
  for (std::size_t level = 2; level < levels; ++level) value = NSArray{value};
  return {{"nested", value}};
}

TEST_F(Calls, OfTheGreatestDepthArriveAndOneLevelMoreIsRefusedInBothDirections) {
  Client client(service->endpoint());
  auto deepest = client.ask(nested(limits::kMaximumDepth));
  EXPECT_EQ(finish(deepest), nested(limits::kMaximumDepth));
  auto over = client.ask(nested(limits::kMaximumDepth + 1));
  EXPECT_TRUE(finish(over).isNil());
  expectRefusal(client.error(), NSXPCLimitExceeded, "levels of nesting: 129 or more, maximum 128");
  service->exported->onMessage([](const NSDictionary& message, const VeltoReplyHandler& reply) {
    reply(message["deep"].boolValue() ? nested(limits::kMaximumDepth + 1) : message);
  });
  auto reply = client.ask({{"deep", true}});
  EXPECT_TRUE(finish(reply).isNil());
  expectRefusal(client.error(2), NSXPCLimitExceeded, "levels of nesting: 129 or more, maximum 128");
  EXPECT_TRUE(client.works());
}

// The dictionary and its key count, and the array.
NSDictionary objects(std::size_t count) {
  return {{"all", NSArray::arrayWithObjects(std::vector<NSObject>(count - 3, NSNull::null()))}};
}

TEST_F(Calls, WithTheMostObjectsArriveAndOneMoreIsRefused) {
  Client client(service->endpoint());
  const auto arrived = std::make_shared<std::promise<std::size_t>>();
  service->exported->onMessage(
      [arrived](const NSDictionary& message, const VeltoReplyHandler&) { arrived->set_value(message["all"].count()); });
  // The identifier of the peer protocol's call is one too.
  client.tell(objects(limits::kMaximumObjects - 1));
  auto count = arrived->get_future();
  EXPECT_EQ(finish(count), limits::kMaximumObjects - 4);
  client.tell(objects(limits::kMaximumObjects));
  expectRefusal(client.error(), NSXPCLimitExceeded, "objects: 2097153 or more, maximum 2097152");
  service->exported->echo();
  EXPECT_TRUE(client.works());
}

// A set of arrays of a text and more than a hash regards, which differ in the first byte.
constexpr std::size_t kTextBytes = std::size_t{1} << 10;
constexpr std::size_t kCost = 2 + 1 + kTextBytes / 64 + 16;
constexpr std::size_t kMostKeys = 1385;
static_assert(kMostKeys * (kMostKeys - 1) * kCost <= limits::kMaximumKeyComparisons);
static_assert((kMostKeys + 1) * kMostKeys * kCost > limits::kMaximumKeyComparisons);

NSDictionary costlyKeys(std::size_t count) {
  auto arrays = NSMutableSet::set();
  for (std::size_t number = 0; number < count; ++number) {
    std::string text = std::to_string(number);
    std::reverse(text.begin(), text.end());
    text.resize(kTextBytes, '-');
    std::vector<NSObject> elements(17, NSObject(0));
    elements.front() = text;
    arrays.addObject(NSArray::arrayWithObjects(std::move(elements)));
  }
  return {{"set", arrays}};
}

TEST_F(Calls, WhoseKeysCostTheMostComparisonsArriveAndMoreIsRefusedByTheReceiver) {
  Client client(service->endpoint());
  const auto arrived = std::make_shared<std::promise<std::size_t>>();
  service->exported->onMessage(
      [arrived](const NSDictionary& message, const VeltoReplyHandler&) { arrived->set_value(message["set"].count()); });
  client.tell(costlyKeys(kMostKeys));
  auto count = arrived->get_future();
  EXPECT_EQ(finish(count), kMostKeys);
  client.tell(costlyKeys(kMostKeys + 1));
  expectRefusal(
      client.error(), NSXPCCallRefused,
      "comparisons of keys: " + std::to_string((kMostKeys + 1) * kMostKeys * kCost) + " or more, maximum 67108864");
  service->exported->echo();
  EXPECT_TRUE(client.works());
}

void admitEndpoints(NSXPCInterface& interface) {
  for (const bool ofReply : {false, true}) {
    const std::size_t index = ofReply ? 0 : 1;
    auto classes = NSMutableSet::initWithSet(interface.classesForSelector(kMessageSelector, index, ofReply));
    classes.addObject(NSXPCListenerEndpoint::classObject());
    interface.setClasses(classes, kMessageSelector, index, ofReply);
  }
}

TEST_F(Calls, WithTheMostDescriptorsArriveAndOneEndpointMoreIsRefusedInBothDirections) {
  const auto admitting = Service::start(admitEndpoints);
  Client client(admitting->endpoint(), admitEndpoints);
  const auto endpoints = [&](std::size_t count) {
    return NSDictionary{{"all", NSArray::arrayWithObjects(std::vector<NSObject>(count, admitting->endpoint()))}};
  };
  constexpr std::size_t kMost = limits::kMaximumDescriptors / 2;
  auto most = client.ask(endpoints(kMost));
  EXPECT_EQ(finish(most), endpoints(kMost));
  auto over = client.ask(endpoints(kMost + 1));
  EXPECT_TRUE(finish(over).isNil());
  expectRefusal(client.error(), NSXPCLimitExceeded, "descriptors: 66 or more, maximum 64");
  admitting->exported->onMessage([&](const NSDictionary& message, const VeltoReplyHandler& reply) {
    reply(message["over"].boolValue() ? endpoints(kMost + 1) : message);
  });
  auto reply = client.ask({{"over", true}});
  EXPECT_TRUE(finish(reply).isNil());
  expectRefusal(client.error(2), NSXPCLimitExceeded, "descriptors: 66 or more, maximum 64");
  EXPECT_TRUE(client.works());
}

TEST_F(Calls, AreRefusedWithALongReasonThatIsCut) {
  Client client(service->endpoint());
  std::size_t length = limits::kMaximumReasonBytes;
  service->exported->onMessage(
      [&](const NSDictionary&, const VeltoReplyHandler&) { throw NSXPCRefusal(std::string(length, 'r')); });
  for (const std::size_t bytes : {limits::kMaximumReasonBytes, limits::kMaximumReasonBytes + 1}) {
    length = bytes;
    auto answer = client.ask({{"any", "thing"}});
    EXPECT_TRUE(finish(answer).isNil());
    const std::string text = client.errors.all().back().localizedDescription().string();
    EXPECT_EQ(std::count(text.begin() + static_cast<std::ptrdiff_t>(text.find("rrr")), text.end(), 'r'),
              static_cast<std::ptrdiff_t>(limits::kMaximumReasonBytes));
  }
  service->exported->echo();
  EXPECT_TRUE(client.works());
}

}  // namespace
}  // namespace velto::testing
