#include "daemon/Holdings.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "platform/foundation/testing/Sanitizers.h"

namespace velto {
namespace {

using Kind = Holdings::Kind;

TEST(Holdings, KnowWhoHoldsHowMuchAndWhoTheMost) {
  Holdings holdings;
  holdings.add(1, Kind::link, 7);
  holdings.add(2, Kind::name, 7);
  holdings.add(3, Kind::link, 8);
  holdings.add(4, Kind::link, 8);
  EXPECT_EQ(holdings.of(7), (Holdings::Amounts{1, 1, 4}));
  EXPECT_EQ(holdings.of(8), (Holdings::Amounts{2, 0, 2}));
  EXPECT_EQ(holdings.of(9), Holdings::Amounts{});
  EXPECT_EQ(holdings.ofAll(), (Holdings::Amounts{3, 1, 6}));
  EXPECT_EQ(holdings.holders(), 2U);
  EXPECT_EQ(holdings.greatest(Holdings::kLinks), 8U);
  EXPECT_EQ(holdings.greatest(Holdings::kNames), 7U);
  EXPECT_EQ(holdings.greatest(Holdings::kDescriptors), 7U);
}

TEST(Holdings, ForgetWhoHoldsNothingAnyMore) {
  Holdings holdings;
  holdings.add(1, Kind::link, 7);
  holdings.remove(1);
  holdings.remove(1);
  EXPECT_EQ(holdings.holders(), 0U);
  EXPECT_EQ(holdings.ofAll(), Holdings::Amounts{});
  EXPECT_FALSE(holdings.find(1));
}

TEST(Holdings, ThatAreTheNewestNameAndTheLinkThatIsIdleForLongestGoFirst) {
  Holdings holdings;
  for (Holdings::Item item = 1; item <= 3; ++item) {
    holdings.add(item, Kind::link, 7);
    holdings.add(item + 10, Kind::name, 7);
  }
  EXPECT_EQ(holdings.nextToGo(7, Kind::link), 1U);
  EXPECT_EQ(holdings.nextToGo(7, Kind::name), 13U);
  holdings.use(1);
  holdings.use(99);
  EXPECT_EQ(holdings.nextToGo(7, Kind::link), 2U);
}

// The same, written down without any index.
class PlainHoldings {
 public:
  struct Entry {
    Holdings::Item item;
    Kind kind;
    Holdings::Holder holder;
    std::uint64_t lastUse;
  };

  void add(Holdings::Item item, Kind kind, Holdings::Holder holder) {
    entries_.push_back({item, kind, holder, ++lastUse_});
  }
  void remove(Holdings::Item item) {
    std::erase_if(entries_, [&](const Entry& entry) { return entry.item == item; });
  }
  void use(Holdings::Item item) {
    for (Entry& entry : entries_) {
      if (entry.item == item) entry.lastUse = ++lastUse_;
    }
  }
  void giveNames(Holdings::Holder from, Holdings::Holder to) {
    for (Entry& entry : entries_) {
      if (entry.kind == Kind::name && entry.holder == from) entry.holder = to;
    }
  }
  Holdings::Amounts of(std::optional<Holdings::Holder> holder) const {
    Holdings::Amounts amounts{};
    for (const Entry& entry : entries_) {
      if (holder && entry.holder != *holder) continue;
      ++amounts[std::array{Holdings::kLinks, Holdings::kNames,
                           Holdings::kWaiters}[static_cast<std::size_t>(entry.kind)]];
      amounts[Holdings::kDescriptors] += std::array{1U, 3U, 0U}[static_cast<std::size_t>(entry.kind)];
    }
    return amounts;
  }
  Holdings::Item nextToGo(Holdings::Holder holder, Kind kind) const {
    const Entry* found = nullptr;
    for (const Entry& entry : entries_) {
      if (entry.holder != holder || entry.kind != kind) continue;
      const bool goesBefore = found == nullptr || (kind == Kind::link) == (entry.lastUse < found->lastUse);
      if (goesBefore) found = &entry;
    }
    return found->item;
  }

 private:
  std::vector<Entry> entries_;
  std::uint64_t lastUse_ = 0;
};

void expectSame(const Holdings& holdings, const PlainHoldings& plain, Holdings::Holder holders) {
  Holdings::Amounts most{};
  std::size_t holding = 0;
  for (Holdings::Holder holder = 0; holder < holders; ++holder) {
    const auto amounts = plain.of(holder);
    ASSERT_EQ(holdings.of(holder), amounts);
    holding += amounts != Holdings::Amounts{} ? 1 : 0;
    for (std::size_t measure = 0; measure < Holdings::kMeasures; ++measure) {
      most[measure] = std::max(most[measure], amounts[measure]);
    }
    if (amounts[Holdings::kLinks] > 0) {
      ASSERT_EQ(holdings.nextToGo(holder, Kind::link), plain.nextToGo(holder, Kind::link));
    }
    if (amounts[Holdings::kNames] > 0) {
      ASSERT_EQ(holdings.nextToGo(holder, Kind::name), plain.nextToGo(holder, Kind::name));
    }
    if (amounts[Holdings::kWaiters] > 0) {
      ASSERT_EQ(holdings.nextToGo(holder, Kind::waiter), plain.nextToGo(holder, Kind::waiter));
    }
  }
  ASSERT_EQ(holdings.ofAll(), plain.of(std::nullopt));
  ASSERT_EQ(holdings.holders(), holding);
  for (std::size_t measure = 0; holding > 0 && measure < Holdings::kMeasures; ++measure) {
    const auto greatest = holdings.greatest(static_cast<Holdings::Measure>(measure));
    ASSERT_EQ(holdings.of(greatest)[measure], most[measure]);
  }
}

TEST(Holdings, AreWhatAPlainListSaysWhateverHappens) {
  constexpr Holdings::Holder kHolders = 6;
  std::mt19937 random(20240611);
  Holdings holdings;
  PlainHoldings plain;
  Holdings::Item last = 0;
  for (int step = 0; step < testing::rounds(10'000); ++step) {
    // Of the last ones, so that most are still held.
    const Holdings::Item item = last - std::min<Holdings::Item>(last, random() % 40);
    const Holdings::Holder holder = random() % kHolders;
    switch (random() % 8) {
      case 0:
      case 1:
      case 2: {
        const Kind kind = std::array{Kind::link, Kind::name, Kind::waiter}[random() % 3];
        holdings.add(++last, kind, holder);
        plain.add(last, kind, holder);
        break;
      }
      case 3:
        holdings.use(item);
        plain.use(item);
        break;
      case 4:
        if (random() % 20 == 0) {
          const Holdings::Holder other = random() % kHolders;
          holdings.giveNames(holder, other);
          plain.giveNames(holder, other);
        }
        break;
      default:
        holdings.remove(item);
        plain.remove(item);
        break;
    }
    expectSame(holdings, plain, kHolders);
    if (HasFatalFailure()) FAIL() << "step " << step;
  }
}

}  // namespace
}  // namespace velto
