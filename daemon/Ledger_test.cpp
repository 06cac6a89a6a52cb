#include "daemon/Ledger.h"

#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "message/CapturedLog.h"

namespace velto {
namespace {

using Kind = Ledger::Kind;

Holder holder(Holdings::Holder number) {
  return {number, nil};
}

class LedgerTest : public ::testing::Test {
 protected:
  // The item, or 0; then the reason is kept.
  Ledger::Item enter(Kind kind, const Holder& who, Ledger::Item inPlaceOf = 0) {
    Ledger::Admission admission;
    ledger->enter(
        admission, kind, who,
        [this](Ledger::Item item, const std::string& why) {
          left.push_back(item);
          reasons.push_back(why);
        },
        inPlaceOf);
    reason = admission.reason;
    return admission.item;
  }
  std::vector<Ledger::Item> enterMany(Kind kind, const Holder& who, std::size_t count) {
    std::vector<Ledger::Item> items;
    for (std::size_t each = 0; each < count; ++each) {
      items.push_back(enter(kind, who));
      EXPECT_NE(items.back(), 0U) << reason;
    }
    return items;
  }

  std::vector<Ledger::Item> left;
  std::vector<std::string> reasons;
  std::string reason;
  const std::shared_ptr<Ledger> ledger = Ledger::make({.names = 6,
                                                       .namesOfOneProcess = 4,
                                                       .namesOfOneLink = 9,
                                                       .links = 5,
                                                       .descriptors = 100,
                                                       .waiters = 5,
                                                       .waitersOfOneProcess = 3});
};

TEST_F(LedgerTest, ChargesOneProcessWhateverItsLinks) {
  const auto names = enterMany(Kind::name, holder(1), 4);
  EXPECT_EQ(enter(Kind::name, holder(1)), 0U);
  EXPECT_EQ(reason, "names of one process would be 5; the maximum is 4");
  EXPECT_NE(enter(Kind::name, holder(2)), 0U);
  ledger->leave(names.front());
  EXPECT_NE(enter(Kind::name, holder(1)), 0U);
  EXPECT_TRUE(left.empty());
}

TEST_F(LedgerTest, LetsTheNewestNameOfTheGreatestMakeRoom) {
  const auto names = enterMany(Kind::name, holder(1), 4);
  enterMany(Kind::name, holder(2), 2);
  EXPECT_NE(enter(Kind::name, holder(3)), 0U);
  EXPECT_EQ(left, std::vector{names.back()});
  EXPECT_EQ(reasons.front(), "its process holds the most, and names would be 7; the maximum is 6");
  EXPECT_EQ(ledger->held(1)[Holdings::kNames], 3U);
  EXPECT_EQ(ledger->held(3)[Holdings::kNames], 1U);
}

TEST_F(LedgerTest, LetsTheLinkMakeRoomThatTheGreatestHasNotUsedForLongest) {
  const auto links = enterMany(Kind::link, holder(1), 4);
  enterMany(Kind::link, holder(2), 1);
  ledger->use(links[0]);
  EXPECT_NE(enter(Kind::link, holder(3)), 0U);
  EXPECT_EQ(left, std::vector{links[1]});
  EXPECT_EQ(reasons.front(), "its process holds the most, and links would be 6; the maximum is 5");
}

TEST_F(LedgerTest, RefusesWhoWouldHoldAsMuchAsTheGreatest) {
  enterMany(Kind::link, holder(1), 3);
  enterMany(Kind::link, holder(2), 2);
  EXPECT_EQ(enter(Kind::link, holder(2)), 0U) << "the two would take turns in throwing each other out";
  EXPECT_EQ(reason, "links would be 6; the maximum is 5");
  EXPECT_EQ(enter(Kind::link, holder(1)), 0U);
  EXPECT_TRUE(left.empty());
  EXPECT_NE(enter(Kind::link, holder(3)), 0U);
  EXPECT_EQ(left.size(), 1U);
}

TEST_F(LedgerTest, RefusesWhenEverybodyHoldsOne) {
  for (Holdings::Holder number = 1; number <= 5; ++number) enterMany(Kind::link, holder(number), 1);
  EXPECT_EQ(enter(Kind::link, holder(6)), 0U);
  EXPECT_TRUE(left.empty());
}

TEST_F(LedgerTest, LetsOneTakeThePlaceOfAnotherAtEveryLimit) {
  const auto names = enterMany(Kind::name, holder(1), 4);
  const auto others = enterMany(Kind::name, holder(2), 2);
  const Ledger::Item own = enter(Kind::name, holder(1), names.back());
  EXPECT_NE(own, 0U) << reason;
  EXPECT_EQ(enter(Kind::name, holder(1), others.front()), 0U) << "it would be one name more of one process";
  EXPECT_EQ(reason, "names of one process would be 5; the maximum is 4");
  EXPECT_NE(enter(Kind::name, holder(2), own), 0U) << reason;
  EXPECT_EQ(ledger->held(1)[Holdings::kNames], 3U);
  EXPECT_EQ(ledger->held(2)[Holdings::kNames], 3U);
  EXPECT_TRUE(left.empty());
  // The place of one that has left is none.
  EXPECT_EQ(enter(Kind::name, holder(1), names.back()), 0U);
  EXPECT_EQ(reason, "names would be 7; the maximum is 6");
}

TEST_F(LedgerTest, CountsTheDeadAsOne) {
  for (Holdings::Holder number = 1; number <= 6; ++number) enterMany(Kind::name, holder(number), 1);
  EXPECT_EQ(enter(Kind::name, holder(7)), 0U) << "everybody holds one";
  for (Holdings::Holder number = 1; number <= 5; ++number) ledger->bury(number);
  ledger->bury(99);
  EXPECT_EQ(ledger->held(1)[Holdings::kNames], 0U);
  EXPECT_NE(enter(Kind::name, holder(7)), 0U) << "the dead hold five";
  EXPECT_EQ(left.size(), 1U);
}

TEST_F(LedgerTest, KeepsTheDescriptorsOfAllWithinTheirLimit) {
  const auto small = Ledger::make({.descriptors = 10});
  std::vector<Ledger::Item> gone;
  const auto enterThere = [&](Kind kind, Holdings::Holder number) {
    Ledger::Admission admission;
    small->enter(admission, kind, holder(number), [&](Ledger::Item item, const std::string&) { gone.push_back(item); });
    reason = admission.reason;
    return admission.item;
  };
  // One more for the process.
  for (int count = 0; count < 9; ++count) EXPECT_NE(enterThere(Kind::link, 1), 0U) << reason;
  EXPECT_EQ(small->descriptors(), 10U);
  EXPECT_EQ(enterThere(Kind::link, 1), 0U);
  EXPECT_EQ(reason, "descriptors would be 11; the maximum is 10");
  // A name of another process takes four: as many links make room, those first that were not used.
  EXPECT_NE(enterThere(Kind::name, 2), 0U) << reason;
  EXPECT_EQ(gone, (std::vector<Ledger::Item>{1, 2, 3, 4}));
  EXPECT_EQ(small->descriptors(), 10U);
  // Five against three: what would be missing still after that is not worth anybody's going.
  EXPECT_EQ(enterThere(Kind::name, 3), 0U);
  EXPECT_EQ(gone.size(), 4U);
  EXPECT_NE(enterThere(Kind::link, 3), 0U) << reason;
  EXPECT_EQ(gone.size(), 6U);
}

TEST_F(LedgerTest, LetsNamesMakeRoomForLinksWhereTheyAreWhatTakesTheDescriptors) {
  const auto small = Ledger::make({.descriptors = 16});
  std::vector<Ledger::Item> gone;
  const auto enterThere = [&](Kind kind, Holdings::Holder number) {
    Ledger::Admission admission;
    small->enter(admission, kind, holder(number), [&](Ledger::Item item, const std::string&) { gone.push_back(item); });
    return admission.item;
  };
  std::vector<Ledger::Item> names;
  for (int count = 0; count < 5; ++count) names.push_back(enterThere(Kind::name, 1));
  EXPECT_NE(enterThere(Kind::link, 2), 0U);
  EXPECT_EQ(gone, std::vector{names.back()});
}

TEST_F(LedgerTest, BoundsTheWaitersOfOneProcessAndOfAllAndTheyTakeNoDescriptor) {
  const auto waiters = enterMany(Kind::waiter, holder(1), 3);
  EXPECT_EQ(enter(Kind::waiter, holder(1)), 0U);
  EXPECT_EQ(reason, "waiters of one process would be 4; the maximum is 3");
  ledger->leave(waiters.front());
  enterMany(Kind::waiter, holder(1), 1);
  enterMany(Kind::waiter, holder(2), 2);
  EXPECT_NE(enter(Kind::waiter, holder(3)), 0U) << reason;
  EXPECT_EQ(reasons, std::vector<std::string>{"its process holds the most, and waiters would be 6; the maximum is 5"});
  EXPECT_EQ(left.front(), waiters.back() + 1) << "the newest of the greatest";
  EXPECT_EQ(enter(Kind::waiter, holder(2)), 0U) << "as many as the greatest";
  EXPECT_EQ(ledger->held(1), (Holdings::Amounts{0, 0, 0, 2}));
  EXPECT_EQ(ledger->descriptors(), 3U) << "the processes'";
}

TEST_F(LedgerTest, IsEmptyAgainWhenAllHaveLeft) {
  const auto links = enterMany(Kind::link, holder(1), 3);
  const auto names = enterMany(Kind::name, holder(1), 3);
  ledger->bury(1);
  for (const auto item : links) ledger->leave(item);
  for (const auto item : names) ledger->leave(item);
  ledger->leave(names.front());
  ledger->use(names.front());
  EXPECT_EQ(ledger->descriptors(), 0U);
}

TEST_F(LedgerTest, GivesEachProcessThatIsNotKnownAHolderOfItsOwn) {
  EXPECT_NE(Holder::of(nil).number, Holder::of(nil).number);
  EXPECT_NE(Holder::of(nil).number, 0U);
}

TEST_F(LedgerTest, HoldsNoLockWhenItMakesOthersGoAndGoesOnWhenOneOfThemRaises) {
  CapturedLog log;
  const auto small = Ledger::make({.links = 3, .descriptors = 100});
  std::vector<Ledger::Item> gone;
  const auto raising = [&](Ledger::Item item, const std::string&) {
    small->leave(item);
    gone.push_back(item);
    throw std::runtime_error("it would not");
  };
  for (int count = 0; count < 3; ++count) {
    Ledger::Admission admission;
    small->enter(admission, Kind::link, holder(1), raising);
  }
  {
    Ledger::Admission admission;
    small->enter(admission, Kind::link, holder(2), raising);
    EXPECT_NE(admission.item, 0U);
    EXPECT_TRUE(gone.empty()) << "they go when the one that asked for room is through";
  }
  EXPECT_EQ(gone.size(), 1U);
  EXPECT_TRUE(log.waitFor({0, "What had to make room did not go in good order: it would not"}));
}

TEST_F(LedgerTest, ManyMayUseAtOnce) {
  const auto shared = Ledger::make({.names = 40, .namesOfOneProcess = 20, .links = 40, .descriptors = 120});
  std::vector<std::thread> threads;
  for (Holdings::Holder number = 1; number <= 4; ++number) {
    threads.emplace_back([&shared, number] {
      std::vector<Ledger::Item> items;
      for (int round = 0; round < 5000; ++round) {
        Ledger::Admission admission;
        shared->enter(admission, round % 3 == 0 ? Kind::name : Kind::link, holder(number),
                      [](Ledger::Item, const std::string&) {});
        if (admission.item != 0) items.push_back(admission.item);
        if (items.size() > 30) {
          shared->leave(items.front());
          items.erase(items.begin());
        }
        if (!items.empty()) shared->use(items.back());
        if (round % 1000 == 999) shared->bury(number);
        EXPECT_LE(shared->descriptors(), 120U);
      }
      for (const auto item : items) shared->leave(item);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared->descriptors(), 0U);
}

}  // namespace
}  // namespace velto
