#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

template <class Container>
std::string walked(const Container& container) {
  std::string text;
  for (const NSObject& each : container) text += each.description().string() + " ";
  return text;
}

TEST(ObjectIterator, WalksEveryContainerInOrder) {
  EXPECT_EQ(walked(NSArray{3, 1, 2}), "3 1 2 ");
  EXPECT_EQ(walked(NSSet{3, 1, 3, 2}), "3 1 2 ");
  EXPECT_EQ(walked(NSDictionary{{"b", 1}, {"a", 2}}), "b a ");
}

TEST(ObjectIterator, WalksNothingInEmptyOnesAndNil) {
  EXPECT_EQ(walked(NSArray::array()), "");
  EXPECT_EQ(walked(NSSet::set()), "");
  EXPECT_EQ(walked(NSDictionary::dictionary()), "");
  EXPECT_EQ(walked(NSArray()), "");
  EXPECT_EQ(walked(NSSet()), "");
  EXPECT_EQ(walked(NSDictionary()), "");
}

TEST(ObjectIterator, PassesOverRemovedEntries) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{1, 1}, {2, 2}, {3, 3}, {4, 4}});
  dictionary.removeObjectForKey(1);
  dictionary.removeObjectForKey(3);
  EXPECT_EQ(walked(dictionary), "2 4 ");
  dictionary.removeObjectForKey(4);
  EXPECT_EQ(walked(dictionary), "2 ");
  dictionary.removeObjectForKey(2);
  EXPECT_EQ(walked(dictionary), "");
}

template <class Container, class Change>
void expectRaisesWhenChanged(const Container& container, const Change& change) {
  int visited = 0;
  try {
    for ([[maybe_unused]] const NSObject& each : container) {
      ++visited;
      change();
    }
    ADD_FAILURE() << "no exception";
  } catch (const NSException& exception) {
    EXPECT_EQ(exception.name(), "ContainerChangedException");
    EXPECT_NE(exception.reason().find("was changed while it was walked"), std::string::npos) << exception.reason();
  }
  EXPECT_EQ(visited, 1);
}

TEST(ObjectIterator, RaisesWhenTheContainerChangesUnderfoot) {
  NSMutableArray array = NSMutableArray::arrayWithArray({1, 2, 3});
  expectRaisesWhenChanged(array, [&] { array.addObject(4); });
  expectRaisesWhenChanged(array, [&] { array.removeObjectAtIndex(0); });
  expectRaisesWhenChanged(array, [&] { array.removeObject(2); });
  expectRaisesWhenChanged(array, [&] { array.removeAllObjects(); });
  NSMutableSet set = NSMutableSet::initWithSet({1, 2, 3});
  expectRaisesWhenChanged(set, [&] { set.addObject(4); });
  expectRaisesWhenChanged(set, [&] { set.removeObject(2); });
  expectRaisesWhenChanged(set, [&] { set.removeAllObjects(); });
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{1, 1}, {2, 2}});
  expectRaisesWhenChanged(dictionary, [&] { dictionary.setObject(3, 3); });
  expectRaisesWhenChanged(dictionary, [&] { dictionary.setObject("new", 1); });
  expectRaisesWhenChanged(dictionary, [&] { dictionary.removeObjectForKey(2); });
  expectRaisesWhenChanged(dictionary, [&] { dictionary.removeAllObjects(); });
}

TEST(ObjectIterator, ChangesThatChangeNothingDoNotDisturb) {
  NSMutableSet set = NSMutableSet::initWithSet({1, 2});
  for ([[maybe_unused]] const NSObject& each : set) {
    set.addObject(1);
    set.removeObject(7);
  }
  NSMutableArray array = NSMutableArray::arrayWithArray({1, 2});
  for ([[maybe_unused]] const NSObject& each : array) {
    array.removeObject(7);
    array.removeObjectAtIndex(7);
  }
  EXPECT_EQ(set.count() + array.count(), 4u);
}

TEST(ObjectIterator, MisuseRaisesInsteadOfReadingWhatIsNotThere) {
  const NSArray array{1};
  EXPECT_THROW(*array.end(), NSException);
  EXPECT_THROW(*velto::ObjectIterator(), NSException);
  EXPECT_THROW(++velto::ObjectIterator(), NSException);
  EXPECT_THROW(*velto::ObjectIterator(NSString("text"), velto::ObjectIterator::Place::begin), NSException);
}

TEST(ObjectIterator, SnapshotsCanBeWalkedWhileTheOriginalChanges) {
  NSMutableArray array = NSMutableArray::arrayWithArray({1, 2});
  for (const NSObject& each : array.copy()) array.addObject(each);
  EXPECT_EQ(array, (NSArray{1, 2, 1, 2}));
}

}  // namespace
