#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"

namespace {

velto::CodedClass coded() {
  VKTLogAnchor::classObject();
  return velto::codedClassNamed("VKTLogAnchor");
}

NSObject decoded(const NSObject& value) {
  return coded().coding.decode(value);
}

NSDictionary parts(const NSObject& file, const NSObject& line, const NSObject& function) {
  return {{"file", file}, {"line", line}, {"function", function}};
}

TEST(VKTLogAnchor, RecordsWhereItWasMade) {
  const VKTLogAnchor& anchor = VKTLogGetAnchor();
  const std::uint32_t line = __LINE__ - 1;
  EXPECT_EQ(anchor.line(), line);
  EXPECT_EQ(anchor.file().string(), __FILE__);
  EXPECT_EQ(anchor.function().string(), "TestBody");
}

TEST(VKTLogAnchor, IsMadeOncePerPlace) {
  const VKTLogAnchor* first = nullptr;
  for (int round = 0; round < 3; ++round) {
    const VKTLogAnchor& anchor = VKTLogGetAnchor();
    if (first == nullptr) first = &anchor;
    EXPECT_EQ(&anchor, first);
  }
  EXPECT_NE(&VKTLogGetAnchor(), first);
}

TEST(VKTLogAnchor, HoldsWhatItIsMadeFrom) {
  const VKTLogAnchor anchor = VKTLogAnchor::anchorWithFile("a.cpp", 7, "run");
  EXPECT_EQ(anchor.description().string(), "a.cpp:7 run");
  EXPECT_EQ(anchor, VKTLogAnchor::anchorWithLocation({"a.cpp", 7, "run"}));
  EXPECT_EQ(anchor.hash(), VKTLogAnchor::anchorWithFile("a.cpp", 7, "run").hash());
  EXPECT_NE(anchor, VKTLogAnchor::anchorWithFile("a.cpp", 8, "run"));
  EXPECT_NE(anchor, VKTLogAnchor::anchorWithFile("b.cpp", 7, "run"));
  EXPECT_NE(anchor, VKTLogAnchor::anchorWithFile("a.cpp", 7, "walk"));
}

TEST(VKTLogAnchor, NilAndMissingPartsAreEmpty) {
  const VKTLogAnchor none;
  EXPECT_EQ(none.file(), "");
  EXPECT_EQ(none.line(), 0u);
  EXPECT_EQ(none.function(), "");
  EXPECT_EQ(VKTLogAnchor::anchorWithFile(nil, 1, nil).file(), "");
  EXPECT_EQ(VKTLogAnchor::anchorWithFile(nil, 1, nil).function(), "");
}

TEST(VKTLogAnchor, IsRegisteredForTravel) {
  EXPECT_EQ(coded().classObject, VKTLogAnchor::classObject());
}

TEST(VKTLogAnchor, TravelsAsADictionaryAndBack) {
  const VKTLogAnchor anchor = VKTLogAnchor::anchorWithFile("a.cpp", 7, "run");
  const NSObject value = coded().coding.encode(anchor);
  EXPECT_EQ(value, parts("a.cpp", 7, "run"));
  EXPECT_EQ(decoded(value), anchor);
  EXPECT_TRUE(coded().coding.encode("no anchor").isNil());
}

TEST(VKTLogAnchor, LinesAreDecodedFromTheLowestToTheHighest) {
  constexpr std::uint32_t kHighest = std::numeric_limits<std::uint32_t>::max();
  EXPECT_EQ(decoded(parts("f", 0, "g")).as<VKTLogAnchor>().line(), 0u);
  EXPECT_EQ(decoded(parts("f", kHighest, "g")).as<VKTLogAnchor>().line(), kHighest);
  EXPECT_TRUE(decoded(parts("f", std::uint64_t{kHighest} + 1, "g")).isNil());
  EXPECT_TRUE(decoded(parts("f", -1, "g")).isNil());
  EXPECT_TRUE(decoded(parts("f", UINT64_MAX, "g")).isNil());
}

TEST(VKTLogAnchor, HasNoClassesOfUsersBelowIt) {
  EXPECT_THROW(static_cast<void>(Class::define("Mine", VKTLogAnchor::classObject())), NSException);
}

TEST(VKTLogAnchor, DecodesNothingElse) {
  EXPECT_TRUE(decoded(nil).isNil());
  EXPECT_TRUE(decoded("text").isNil());
  EXPECT_TRUE(decoded(NSArray{"f", 1, "g"}).isNil());
  EXPECT_TRUE(decoded(NSDictionary::dictionary()).isNil());
  EXPECT_TRUE(decoded(parts(1, 1, "g")).isNil());
  EXPECT_TRUE(decoded(parts("f", 1, 2)).isNil());
  EXPECT_TRUE(decoded(parts("f", "1", "g")).isNil());
  EXPECT_TRUE(decoded(parts("f", 1.0, "g")).isNil());
  EXPECT_TRUE(decoded(parts("f", true, "g")).isNil());
  EXPECT_TRUE(decoded({}).isNil());
  EXPECT_TRUE(decoded(NSDictionary{{"file", "f"}, {"line", 1}, {"function", "g"}, {"more", 1}}).isNil());
  EXPECT_TRUE(decoded(NSDictionary{{"file", "f"}, {"line", 1}}).isNil());
}

}  // namespace
