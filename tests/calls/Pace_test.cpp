// A reader that takes its time.

#include <cstdlib>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "VeltoIPC/Client.h"
#include "tests/calls/Actor.h"
#include "tests/support/Brokers.h"
#include "tests/support/MemoryTells.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::testing {
namespace {

using namespace std::chrono_literals;

constexpr char kPaceName[] = "org.velto.test.pace";
constexpr std::int64_t kMost = std::int64_t{32} << 20;

std::int64_t residentBytes() {
  std::int64_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

TEST(Pace, OfASlowReaderBoundsTheMemoryOfBothEnds) {
  const RuntimeDirectory directory;
  const DaemonProcess broker;
  Actor service(kPaceName);
  const Client client = Client::connect(kPaceName).value();
  const auto resident = [&] {
    return std::atoll(client.call({{"op", "resident"}}).get().value()["resident"].stringValue().c_str());
  };
  constexpr std::int64_t kLines = 20'000;
  const std::int64_t thereBefore = resident();
  const std::int64_t hereBefore = residentBytes();
  const Stream stream = client.open({{"op", "lines"}, {"count", kLines}});
  std::int64_t next = 0;
  std::int64_t mostHere = 0;
  for (const NSDictionary& line : stream) {
    ASSERT_EQ(line["number"].integerValue(), next++);
    std::this_thread::sleep_for(1ms);
    if (next % 1'000 == 0) mostHere = std::max(mostHere, residentBytes());
  }
  EXPECT_EQ(next, kLines);
  const NSDictionary reply = stream.result().value();
  EXPECT_EQ(reply["lines"].integerValue(), kLines);
  if (!kMemoryTells) return;
  EXPECT_LT(mostHere - hereBefore, kMost);
  EXPECT_LT(std::atoll(reply["resident"].stringValue().c_str()) - thereBefore, kMost);
  std::printf("more here %lld KiB, there %lld KiB\n", static_cast<long long>((mostHere - hereBefore) >> 10),
              static_cast<long long>((std::atoll(reply["resident"].stringValue().c_str()) - thereBefore) >> 10));
}

}  // namespace
}  // namespace velto::testing
