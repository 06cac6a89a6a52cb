#include "platform/foundation/Box.h"

#include <memory>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

class Resource {
 public:
  static Class boxClass() {
    static const Class& made = *new Class(Class::define("Resource", NSObject::classObject()));
    return made;
  }
};

class OtherResource {
 public:
  static Class boxClass() {
    static const Class& made = *new Class(Class::define("OtherResource", NSObject::classObject()));
    return made;
  }
};

TEST(Box, GivesBackTheResource) {
  const auto resource = std::make_shared<Resource>();
  const NSArray array{box(resource)};
  EXPECT_EQ(unbox<Resource>(array[0]), resource);
}

TEST(Box, AnswersNullForAnythingElse) {
  EXPECT_EQ(unbox<Resource>(box(std::make_shared<OtherResource>())), nullptr);
  EXPECT_EQ(unbox<Resource>("text"), nullptr);
  EXPECT_EQ(unbox<Resource>(nil), nullptr);
  EXPECT_TRUE(box(std::shared_ptr<Resource>()).isNil());
}

TEST(Box, AnswersTheClassOfTheResource) {
  const NSObject boxed = box(std::make_shared<Resource>());
  EXPECT_EQ(boxed.getClass(), Resource::boxClass());
  EXPECT_TRUE(boxed.description().view().starts_with("<Resource: 0x"));
}

TEST(Box, BoxesOfOneResourceAreEqual) {
  const auto resource = std::make_shared<Resource>();
  EXPECT_EQ(box(resource), box(resource));
  EXPECT_EQ(box(resource).hash(), box(resource).hash());
  EXPECT_NE(box(resource), box(std::make_shared<Resource>()));
  const NSDictionary dictionary{{box(resource), "found"}};
  EXPECT_EQ(dictionary[box(resource)].stringValue(), "found");
}

TEST(Box, KeepsTheResourceAlive) {
  auto resource = std::make_shared<Resource>();
  const std::weak_ptr<Resource> weak = resource;
  NSObject boxed = box(std::move(resource));
  EXPECT_FALSE(weak.expired());
  boxed = nil;
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace velto
