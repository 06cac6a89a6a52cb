#include "platform/foundation/ArrayBody.h"

#include <functional>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

// Data whose end runs a piece of code: what an object's destructor may do to the container that it is removed from.
NSObject atItsEnd(std::function<void()> code) {
  static const char byte = 0;
  return NSData::dataWithBytesNoCopy(&byte, 1, std::move(code));
}

TEST(ArrayBody, IsWholeAgainWhenARemovedElementUsesIt) {
  NSMutableArray array = NSMutableArray::array();
  std::size_t counted = 99;
  array.addObject(atItsEnd([&] {
    counted = array.count();
    array.addObject("from the destructor");
  }));
  array.removeObjectAtIndex(0);
  EXPECT_EQ(counted, 0u);
  EXPECT_EQ(array, NSArray{"from the destructor"});
}

TEST(ArrayBody, IsEmptyWhenItsClearedElementsUseIt) {
  NSMutableArray array = NSMutableArray::array();
  std::size_t counted = 0;
  for (int each = 0; each < 3; ++each) array.addObject(atItsEnd([&] { counted += array.count() + 1; }));
  array.removeAllObjects();
  EXPECT_EQ(counted, 3u);
}

TEST(ArrayBody, CountsItsChanges) {
  auto& body = *new velto::MutableArrayBody({});
  const NSObject owner = NSObject::adopt(velto::Value(body));
  body.add(1);
  body.removeAt(5);
  EXPECT_EQ(body.changes(), 1u);
  body.removeAt(0);
  EXPECT_EQ(body.changes(), 2u);
}

}  // namespace
