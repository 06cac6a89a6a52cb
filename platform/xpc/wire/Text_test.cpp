#include "platform/xpc/wire/Text.h"

#include <gtest/gtest.h>

namespace velto::wire {
namespace {

TEST(Text, ALimitIsNamedWithValueAndMaximum) {
  EXPECT_EQ(overLimit("bytes of a frame", 17, 16), "bytes of a frame: 17, maximum 16");
  EXPECT_EQ(overLimit("objects", 3, 2, true), "objects: 3 or more, maximum 2");
}

TEST(Text, AShortNameOfAPeerIsShownAsItIs) {
  EXPECT_EQ(peerName("VKTLogAnchor"), "VKTLogAnchor");
  EXPECT_EQ(peerName("Größe"), "Größe");
  EXPECT_EQ(peerName(""), "");
}

TEST(Text, ANameOfAPeerBringsNoControlCharactersIntoALog) {
  EXPECT_EQ(peerName(std::string_view("a\nb\0c\x7f", 6)), "a?b?c?");
}

TEST(Text, ALongNameOfAPeerIsCutBetweenCharacters) {
  EXPECT_EQ(peerName(std::string(128, 'a')), std::string(128, 'a'));
  EXPECT_EQ(peerName(std::string(129, 'a')), std::string(128, 'a') + "…");
  EXPECT_EQ(peerName(std::string(127, 'a') + "é"), std::string(127, 'a') + "…");
}

}  // namespace
}  // namespace velto::wire
