#include "platform/foundation/DataBody.h"

#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(DataBody, DescribesItsLengthAndItsFirstBytes) {
  EXPECT_EQ(NSData::dataWithBytes("\x01\x02\xff", 3).description().string(), "{length = 3, bytes = 0x0102ff}");
  EXPECT_EQ(NSData::dataWithVector({}).description().string(), "{length = 0}");
  EXPECT_EQ(NSData::dataWithVector(std::vector<std::uint8_t>(16, 0xab)).description().string(),
            "{length = 16, bytes = 0xabababababababababababababababab}");
  EXPECT_EQ(NSData::dataWithVector(std::vector<std::uint8_t>(17, 0xab)).description().string(),
            "{length = 17, bytes = 0xabababababababababababababababab…}");
}

TEST(DataBody, TellsTheOwnerOnWhicheverThreadLetsGoLast) {
  std::thread::id deletedOn;
  NSData data = NSData::dataWithBytesNoCopy("abc", 3, [&] { deletedOn = std::this_thread::get_id(); });
  std::thread last([held = std::exchange(data, NSData())]() mutable { held = nil; });
  const std::thread::id lastThread = last.get_id();
  last.join();
  EXPECT_EQ(deletedOn, lastThread);
}

}  // namespace
