// What a hostile or broken peer puts where a value is due. Every case ends in one of the three outcomes, in a time and
// with a memory that the bytes account for.

#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <random>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/foundation/NSCoding.h"
#include "platform/foundation/testing/Sanitizers.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/WireTesting.h"
#include "platform/xpc/wire/Tags.h"

namespace velto::wire {
namespace {

using namespace testing;

constexpr bool kSanitized = velto::testing::kAddressSanitizer || velto::testing::kThreadSanitizer;

NSObject richValue() {
  return NSDictionary{
      {"text", "Grüße"},
      {"numbers", NSArray{0, -1, 300u, 1.5, true, INT64_MIN, UINT64_MAX}},
      {"data", NSData(Bytes(30, 7))},
      {"when", NSDate::dateWithTimeIntervalSince1970(1e9)},
      {"where", NSURL::URLWithString("file:///tmp")},
      {"who", NSUUID::UUIDWithString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F")},
      {"set", NSSet{1, "two", NSNull::null()}},
      {"error", NSError::errorWithDomain("domain", -3, {{NSLocalizedDescriptionKey, "why"}, {1, NSArray::array()}})},
      {"point", Point::at(7, -7)},
      {NSArray{1, 2}, NSDictionary{{"deeper", NSArray{NSArray{"still"}}}}}};
}

Frame richFrame() {
  return frameOf(NSArray{richValue(), Port::with({newPipe(), newPipe()})});
}

// A head of nine bytes.
Bytes longHead(unsigned initialByte, std::uint64_t number) {
  Bytes head{static_cast<std::uint8_t>(initialByte)};
  for (int shift = 56; shift >= 0; shift -= 8) head.push_back(static_cast<std::uint8_t>(number >> shift));
  return head;
}

TEST(HostileValues, ARichValueCutAtEveryOffsetIsBroken) {
  const Frame whole = richFrame();
  ASSERT_EQ(decode(whole).outcome, Outcome::value);
  for (std::size_t length = 0; length < whole.body.size(); ++length) {
    Frame cut = whole;
    cut.body.resize(length);
    for (const ClassSet& admitted : {everything(), ClassSet()}) {
      const Decoded decoded = decode(cut, admitted);
      EXPECT_EQ(decoded.outcome, Outcome::broken) << length;
      EXPECT_TRUE(contains(decoded.reason, "truncated")) << decoded.reason;
    }
  }
}

// What a first byte makes of a value, when nothing but zeros follows.
Outcome outcomeOfInitialByte(unsigned byte) {
  const unsigned major = byte >> 5, additional = byte & 0x1F;
  const bool isReserved = additional >= 28;
  switch (major) {
    case 5:
      // From two pairs on, the key 0 comes twice.
      return isReserved || (additional >= 2 && additional < 24) ? Outcome::broken : Outcome::value;
    case 6:
      // A date cannot be the integer 0; tags of more bytes are all tag 0 here.
      return isReserved || additional == kDateTag ? Outcome::broken : Outcome::refused;
    case 7:
      return additional >= 20 && additional <= 27 && additional != 24 ? Outcome::value : Outcome::broken;
    default:
      return isReserved ? Outcome::broken : Outcome::value;
  }
}

TEST(HostileValues, EveryInitialByteInThePlaceOfAValue) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const Bytes bytes = Bytes{static_cast<std::uint8_t>(byte)} + Bytes(64, 0);
    EXPECT_EQ(decodeBytes(bytes).outcome, outcomeOfInitialByte(byte)) << byte;
  }
}

TEST(HostileValues, EveryInitialByteInsideEveryContainer) {
  for (const char* before :
       {"81", "82 18 64", "a1 18 64", "a1", "d9 0102 81", "d8 1b 84 67 4e534572726f72 60 00 a1 18 64"}) {
    for (unsigned byte = 0; byte < 256; ++byte) {
      const Outcome expected = byte == 0xF7 ? Outcome::broken : outcomeOfInitialByte(byte);
      const Bytes bytes = hex(before) + Bytes{static_cast<std::uint8_t>(byte)} + Bytes(64, 0);
      EXPECT_EQ(decodeBytes(bytes).outcome, expected) << before << " " << byte;
    }
  }
}

TEST(HostileValues, EveryInitialByteInAValueThatIsSteppedOver) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const bool isSimple = byte >= 0xE0;
    const bool isSound = isSimple ? byte >= 0xF4 && byte <= 0xFB && byte != 0xF8 : (byte & 0x1F) < 28;
    const Bytes bytes = hex("c9") + Bytes{static_cast<std::uint8_t>(byte)} + Bytes(64, 0);
    EXPECT_EQ(decodeBytes(bytes).outcome, isSound ? Outcome::refused : Outcome::broken) << byte;
  }
}

TEST(HostileValues, EveryBitOfARichValueFlipped) {
  const Frame whole = richFrame();
  std::array<std::size_t, 3> seen{};
  for (std::size_t bit = 0; bit < 8 * whole.body.size(); ++bit) {
    Frame flipped = whole;
    flipped.body[bit / 8] = static_cast<std::uint8_t>(flipped.body[bit / 8] ^ 1u << (bit % 8));
    const Decoded decoded = decode(flipped);
    ++seen[static_cast<std::size_t>(decoded.outcome)];
    EXPECT_EQ(decoded.outcome == Outcome::value, decoded.reason.empty());
    if (decoded.outcome == Outcome::value) {
      EXPECT_EQ(whyNot(decoded.value), "");
    }
  }
  for (const std::size_t count : seen) EXPECT_GT(count, 0u);
}

void changeOneByte(Bytes& bytes, std::mt19937& random) {
  const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(random() % bytes.size());
  switch (random() % 3) {
    case 0:
      *at = static_cast<std::uint8_t>(random());
      break;
    case 1:
      bytes.erase(at);
      break;
    default:
      bytes.insert(at, static_cast<std::uint8_t>(random()));
  }
}

TEST(HostileValues, RandomChangesOfARichValue) {
  const Frame whole = richFrame();
  std::mt19937 random(11);
  std::array<std::size_t, 3> seen{};
  for (int round = 0; round < 20'000; ++round) {
    Frame changed = whole;
    Bytes bytes = changed.body;
    for (unsigned count = 1 + random() % 4; count > 0; --count) changeOneByte(bytes, random);
    changed.body = bytes;
    const Decoded decoded = decode(changed);
    ++seen[static_cast<std::size_t>(decoded.outcome)];
    if (decoded.outcome != Outcome::value) continue;
    // What was taken can be sent on, compared and printed.
    EXPECT_EQ(whyNot(decoded.value), "");
    EXPECT_EQ(decode(frameOf(decoded.value)).value.isNil(), decoded.value.isNil());
    EXPECT_FALSE(decoded.value.description().isNil());
  }
  for (const std::size_t count : seen) EXPECT_GT(count, 0u);
}

TEST(HostileValues, RandomBytes) {
  std::mt19937 random(5);
  for (int round = 0; round < 50'000; ++round) {
    Bytes bytes(random() % 40);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    const Decoded decoded = decodeBytes(bytes);
    EXPECT_EQ(decoded.outcome == Outcome::value, decoded.reason.empty());
  }
}

TEST(HostileValues, EveryTagOverEveryKindOfItem) {
  Point::classObject();
  for (const std::uint64_t tag : {0ull, 1ull, 2ull, 21ull, 27ull, 32ull, 37ull, 258ull, 259ull, 60117ull, 1ull << 32}) {
    for (const char* item : {"00", "20", "41 00", "61 61", "81 00", "a1 00 00", "f4", "f6", "f7", "fb 0000000000000000",
                             "c9 00", "82 61 61 00", "82 69 57697265506f696e74 82 01 02"}) {
      for (const char* before : {"", "81", "a1 00", "d9 0102 81"}) {
        const Decoded decoded = decodeBytes(hex(before) + longHead(0xDB, tag) + hex(item));
        EXPECT_TRUE(decoded.outcome == Outcome::broken || decoded.atEnd) << before << " " << tag << " " << item;
        EXPECT_EQ(decoded.outcome == Outcome::value, decoded.reason.empty());
      }
    }
  }
}

TEST(HostileValues, CountsAndLengthsAtTheEdgesOfTheirTypes) {
  for (const std::uint64_t count :
       {1ull << 30, (1ull << 31) - 1, 1ull << 31, (1ull << 32) - 1, 1ull << 32, (1ull << 63) - 1, 1ull << 63, ~0ull}) {
    for (const unsigned initialByte : {0x5Bu, 0x7Bu, 0x9Bu, 0xBBu}) {
      for (const char* before : {"", "81", "a1 00", "d9 0102", "d8 1b", "d8 20", "d8 25", "c9"}) {
        EXPECT_EQ(decodeBytes(hex(before) + longHead(initialByte, count) + Bytes(32, 0)).outcome, Outcome::broken)
            << before << " " << initialByte << " " << count;
      }
    }
  }
}

// For a child process: it runs on with so much more address space than it has now.
void capAddressSpace(std::size_t more) {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const std::size_t bytes = pages * static_cast<std::size_t>(::getpagesize()) + more;
  const rlimit cap{bytes, bytes};
  if (pages == 0 || ::setrlimit(RLIMIT_AS, &cap) != 0) std::_Exit(2);
}

[[noreturn]] void decodeGigabytesThatAreNotThere() {
  capAddressSpace(std::size_t{256} << 20);
  for (const char* bytes : {"9a 40000000", "ba 40000000", "5a 40000000", "7a 40000000", "9b 0000000040000000"}) {
    if (decodeBytes(hex(bytes)).outcome != Outcome::broken) std::_Exit(3);
  }
  std::_Exit(0);
}

TEST(HostileValues, FiveBytesThatAskForAGigabyteFailWithTheAddressSpaceCapped) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's shadow memory needs the address space";
  EXPECT_EXIT(decodeGigabytesThatAreNotThere(), ::testing::ExitedWithCode(0), "");
}

[[noreturn]] void decodeMoreThanMemoryHolds() {
  const Frame greedy = frameOfBytes(hex("9a 001ffff0") + Bytes(0x1ffff0, 0) + hex("07"));
  const ClassSet& admitted = everything();
  capAddressSpace(std::size_t{24} << 20);
  ValueDecoder decoder(greedy);
  NSObject value;
  if (decoder.next(admitted, value) != Outcome::refused) std::_Exit(3);
  if (decoder.next(admitted, value) != Outcome::value || !decoder.atEnd()) std::_Exit(4);
  std::_Exit(0);
}

TEST(HostileValues, AValueThatNeedsMoreMemoryThanThereIsIsRefusedAndTheNextOnePasses) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's shadow memory needs the address space";
  EXPECT_EXIT(decodeMoreThanMemoryHolds(), ::testing::ExitedWithCode(0), "");
}

// This thread's own time.
double millisecondsToDecode(const Bytes& bytes, Outcome expected, std::string* reason = nullptr) {
  const auto now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
  };
  const Frame frame = frameOfBytes(bytes);
  const double start = now();
  const Decoded decoded = decode(frame);
  const double milliseconds = now() - start;
  EXPECT_EQ(decoded.outcome, expected);
  if (reason != nullptr) *reason = decoded.reason;
  return milliseconds;
}

TEST(HostileValues, TheWorkOfAMegabyteIsBoundedWhateverItHolds) {
  // Honest megabytes take tens of milliseconds; a quadratic one would take minutes. The bound leaves room for slow
  // machines and sanitizers.
  constexpr double kBoundMilliseconds = 20'000;
  const std::size_t size = std::size_t{1} << 20;
  EXPECT_LT(millisecondsToDecode(repeated(hex("81"), size) + hex("00"), Outcome::refused), kBoundMilliseconds);
  EXPECT_LT(millisecondsToDecode(hex("9a 00080000") + repeated(hex("81 80"), size / 2), Outcome::value),
            kBoundMilliseconds);
  EXPECT_LT(millisecondsToDecode(hex("9a 00100000") + repeated(hex("a0"), size), Outcome::value), kBoundMilliseconds);
  // Keys that all have one hash.
  Bytes keys = hex("d9 0102 9a 0000b000");
  for (unsigned key = 0; key < 0xB000; ++key) {
    keys = std::move(keys) + hex("91") + Bytes(16, 0) + hex("1a") +
           Bytes{0, static_cast<std::uint8_t>(key >> 16), static_cast<std::uint8_t>(key >> 8),
                 static_cast<std::uint8_t>(key)};
  }
  EXPECT_LT(millisecondsToDecode(keys, Outcome::refused), kBoundMilliseconds);
}

TEST(HostileValues, SetsOfSetsOfSetsAreBoundedTogether) {
  // Comparing two of the outer elements compares every pair of the inner ones, and so on down.
  const std::function<Bytes(int, unsigned&)> sets = [&sets](int depth, unsigned& next) -> Bytes {
    if (depth == 0) {
      ++next;
      return hex("81 19") + Bytes{static_cast<std::uint8_t>(next >> 8), static_cast<std::uint8_t>(next)};
    }
    Bytes bytes = hex("d9 0102 8f");
    for (int element = 0; element < 15; ++element) bytes = std::move(bytes) + sets(depth - 1, next);
    return bytes;
  };
  unsigned next = 0;
  EXPECT_EQ(decodeBytes(sets(2, next)).outcome, Outcome::value);
  next = 0;
  const Decoded deeper = decodeBytes(sets(4, next));
  EXPECT_EQ(deeper.outcome, Outcome::refused);
  EXPECT_TRUE(contains(deeper.reason, "comparisons of keys")) << deeper.reason;
}

TEST(HostileValues, SetsWithinEachOtherAreBoundedTogetherWhereverTheirElementsCome) {
  // Errors, which all have one hash. One such set may pass, but not another inside of it, whose elements come later.
  const auto set = [](const Bytes& last) {
    Bytes bytes = hex("d9 0102 99 0af1");
    for (unsigned number = 0; number < 0xAF0; ++number) {
      bytes = std::move(bytes) + hex("d8 1b 84 67 4e534572726f72 60 00 a1 00 19") +
              Bytes{static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
    }
    return std::move(bytes) + last;
  };
  EXPECT_EQ(decodeBytes(set(hex("00"))).outcome, Outcome::value);
  const Decoded both = decodeBytes(set(set(hex("00"))));
  EXPECT_EQ(both.outcome, Outcome::refused);
  EXPECT_TRUE(contains(both.reason, "comparisons of keys")) << both.reason;
}

TEST(HostileValues, KeysAreChargedWhateverTheirValuesAre) {
  // Dictionaries as elements of a set, which differ in their last value only; the values are containers, or plain.
  const auto setOf = [](unsigned dictionaries, const Bytes& value) {
    Bytes bytes = hex("d9 0102 98") + Bytes{static_cast<std::uint8_t>(dictionaries)};
    for (unsigned number = 0; number < dictionaries; ++number) {
      bytes = std::move(bytes) + hex("b9 044c");
      for (unsigned key = 0; key < 0x44B; ++key) {
        bytes = std::move(bytes) + hex("19") +
                Bytes{static_cast<std::uint8_t>(key >> 8), static_cast<std::uint8_t>(key)} + value;
      }
      bytes = std::move(bytes) + hex("19 ffff 18") + Bytes{static_cast<std::uint8_t>(number + 24)};
    }
    return bytes;
  };
  for (const Bytes& value : {hex("80"), hex("01"), hex("d8 20 6161")}) {
    EXPECT_EQ(decodeBytes(setOf(24, value)).outcome, Outcome::value);
    const Decoded many = decodeBytes(setOf(60, value));
    EXPECT_EQ(many.outcome, Outcome::refused);
    EXPECT_TRUE(contains(many.reason, "comparisons of keys")) << many.reason;
  }
}

// A container around one object: what stands before it, and behind.
struct Floor {
  Bytes before;
  Bytes behind;
};

// So many arrays in a set, each of a tower of containers around a zero, and of a number that no other has.
Bytes towers(unsigned count, std::size_t height, const Floor& floor) {
  const Bytes tower = repeated(floor.before, height) + hex("00") + repeated(floor.behind, height);
  Bytes bytes = hex("d9 0102 99") + Bytes{static_cast<std::uint8_t>(count >> 8), static_cast<std::uint8_t>(count)};
  for (unsigned number = 0; number < count; ++number) {
    bytes = std::move(bytes) + hex("82") + tower + hex("19") +
            Bytes{static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
  }
  return bytes;
}

TEST(HostileValues, TowersOfContainersInKeysAreRefusedHoweverHigh) {
  constexpr double kBoundMilliseconds = 10'000;
  for (const Floor& floor : {Floor{hex("d9 0102 81"), {}}, Floor{hex("a1"), hex("00")},
                             Floor{hex("d8 1b 84 67 4e534572726f72 60 00 a1"), hex("00")}}) {
    for (const std::size_t height : {62u, 64u, 65u, 125u}) {
      std::string reason;
      EXPECT_LT(millisecondsToDecode(towers(1000, height, floor), Outcome::refused, &reason), kBoundMilliseconds);
      EXPECT_TRUE(contains(reason, "comparisons of keys")) << height << " " << reason;
    }
    EXPECT_LT(millisecondsToDecode(towers(3000, 64, floor), Outcome::refused), kBoundMilliseconds);
  }
}

// An object of a user's class, which counts how often one is compared.
class CountedBody final : public ObjectBody {
 public:
  explicit CountedBody(std::int64_t number) : number_(number) {}
  const ClassBody& classBody() const override;
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    ++comparisons;
    const auto* counted = dynamic_cast<const CountedBody*>(&other);
    return counted != nullptr && counted->number_ == number_;
  }
  std::size_t hash() const override { return 1; }

  static std::uint64_t comparisons;

 private:
  const std::int64_t number_;
};
std::uint64_t CountedBody::comparisons = 0;

struct Counted : NSObject {
  explicit Counted(std::int64_t number) : NSObject(new CountedBody(number)) {}
  static Class classObject() {
    static const Class& made = *new Class([] {
      const Class aClass = newClass("WireCounted", NSObject::classObject());
      registerClassCoding(aClass, {{}, [](const NSObject& value) { return Counted(value.integerValue()); }});
      return aClass;
    }());
    return made;
  }
};
const ClassBody& CountedBody::classBody() const {
  return *Counted::classObject().classBody();
}

// Sets of sets of counted objects, so many at each of the levels. Each object is written with a number of its own.
Bytes setsOfCounted(std::size_t levels, unsigned width, unsigned& next) {
  if (levels == 0) {
    ++next;
    return hex("d8 1b 82 6b 57697265436f756e746564 19") +
           Bytes{static_cast<std::uint8_t>(next >> 8), static_cast<std::uint8_t>(next)};
  }
  Bytes bytes = hex("d9 0102 98") + Bytes{static_cast<std::uint8_t>(width)};
  for (unsigned element = 0; element < width; ++element) {
    bytes = std::move(bytes) + setsOfCounted(levels - 1, width, next);
  }
  return bytes;
}

TEST(HostileValues, WhatIsComparedNeverExceedsWhatMayBe) {
  NSMutableSet classes = NSMutableSet::initWithSet(valueClasses());
  classes.addObject(Counted::classObject());
  const ClassSet admitted(classes);
  std::size_t refused = 0;
  for (const auto& [levels, width] : {std::pair<std::size_t, unsigned>{1, 255},
                                      {2, 40},
                                      {2, 120},
                                      {3, 8},
                                      {3, 24},
                                      {4, 7},
                                      {5, 4},
                                      {8, 2},
                                      {12, 2}}) {
    CountedBody::comparisons = 0;
    unsigned next = 0;
    const Outcome outcome = decodeBytes(setsOfCounted(levels, width, next), admitted).outcome;
    EXPECT_NE(outcome, Outcome::broken) << levels << " " << width;
    EXPECT_LE(CountedBody::comparisons, limits::kMaximumKeyComparisons) << levels << " " << width;
    refused += outcome == Outcome::refused;
  }
  EXPECT_EQ(refused, 3u);
}

}  // namespace
}  // namespace velto::wire
