#include "platform/xpc/connection/CallTable.h"

#include <map>
#include <random>

#include <gtest/gtest.h>

namespace velto::xpc {
namespace {

const Method kAnyMethod{};

OutgoingCall callNumbered(std::uint64_t identifier, std::uint64_t frameNumber = 0) {
  return {identifier, &kAnyMethod, {}, nullptr, frameNumber};
}

// Beside a map, through all sizes and with stragglers.
TEST(CallTable, FindsWhatWasAddedAndNothingElse) {
  CallTable table;
  std::map<std::uint64_t, std::uint64_t> model;
  std::mt19937_64 random(7);
  std::uint64_t next = 1;
  for (int step = 0; step < 200'000; ++step) {
    const bool grows = step % 20'000 < 10'000;
    if (model.empty() || random() % 10 < (grows ? 6 : 4)) {
      const std::uint64_t frameNumber = random();
      table.add(callNumbered(next, frameNumber));
      model.emplace(next++, frameNumber);
    } else {
      auto place = model.lower_bound(next - random() % std::min<std::uint64_t>(next, 4000));
      if (place == model.end()) place = model.begin();
      OutgoingCall* found = table.find(place->first);
      ASSERT_NE(found, nullptr);
      const OutgoingCall taken = table.take(found);
      ASSERT_EQ(taken.identifier, place->first);
      ASSERT_EQ(taken.frameNumber, place->second);
      ASSERT_EQ(table.find(place->first), nullptr);
      model.erase(place);
    }
    ASSERT_EQ(table.size(), model.size());
  }
  for (const auto& [identifier, frameNumber] : model) ASSERT_EQ(table.find(identifier)->frameNumber, frameNumber);
}

TEST(CallTable, GivesAllInTheOrderOfTheirIdentifiersAndIsEmptyThen) {
  CallTable table;
  for (const std::uint64_t identifier : {5U, 0U, 300U, 17U, 2U}) table.add(callNumbered(identifier));
  std::vector<std::uint64_t> order;
  for (const OutgoingCall& call : table.takeAll()) order.push_back(call.identifier);
  EXPECT_EQ(order, (std::vector<std::uint64_t>{0, 2, 5, 17, 300}));
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(table.find(5), nullptr);
  table.add(callNumbered(6));
  EXPECT_NE(table.find(6), nullptr);
}

}  // namespace
}  // namespace velto::xpc
