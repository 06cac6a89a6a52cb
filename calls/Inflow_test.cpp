#include "calls/Inflow.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "calls/ItemSize.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {
namespace {

TEST(Inflow, TakesNoMoreItemsThanItHasAllowed) {
  Inflow flow;
  for (std::size_t number = 0; number < limits::kStreamItems; ++number) ASSERT_FALSE(flow.put({{"number", 1}}));
  EXPECT_EQ(flow.put({{"number", 1}}).value(),
            CallError(Failure::overLimit, "more came in the stream than was allowed"));
  for (std::size_t read = 0; read < limits::kStreamItems / 2; ++read) ASSERT_TRUE(flow.waitForNext());
  EXPECT_FALSE(flow.put({{"number", 1}}));
}

TEST(Inflow, TakesOneItemOfAnySizeAndNoneBehindIt) {
  Inflow flow;
  ASSERT_FALSE(flow.put({{"data", NSData(std::vector<std::uint8_t>(limits::kStreamBytes))}}));
  EXPECT_EQ(flow.put({}).value().failure(), Failure::overLimit);
}

TEST(Inflow, AllOfThemKeepNoMoreThanAProcessMay) {
  // One piece of memory, which counts in each.
  const NSDictionary item = {{"data", NSData(std::vector<std::uint8_t>(limits::kMaximumFrameBytes))}};
  const std::size_t most = limits::kStreamBytesOfProcess / sizeOfItem(item);
  std::vector<std::unique_ptr<Inflow>> flows;
  for (std::size_t number = 0; number <= most; ++number) flows.push_back(std::make_unique<Inflow>());
  for (std::size_t number = 0; number < most; ++number) ASSERT_FALSE(flows[number]->put(item));
  EXPECT_EQ(flows[most]->put(item).value(), CallError(Failure::overLimit, "the streams of this process keep too much"));
  ASSERT_TRUE(flows[0]->waitForNext());
  EXPECT_FALSE(flows[most]->put(item)) << "what is read counts no more";
  flows[1]->discard();
  EXPECT_FALSE(flows[0]->put({}));
  flows.resize(2);
  Inflow other;
  EXPECT_FALSE(other.put(item)) << "nor does what is let go of";
}

}  // namespace
}  // namespace velto::calls
