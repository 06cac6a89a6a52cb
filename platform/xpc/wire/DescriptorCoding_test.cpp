#include "platform/xpc/wire/DescriptorCoding.h"

#include <thread>

#include <gtest/gtest.h>

#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using testing::newClass;

DescriptorCoding codingThatSays(const char* text) {
  return {[](const NSObject&) { return std::vector<system::SharedDescriptor>(); },
          [text](const std::vector<system::SharedDescriptor>&, std::string& reason) -> NSObject {
            reason = text;
            return nil;
          }};
}

std::string saidBy(const DescriptorClass& found) {
  std::string reason;
  found.coding.make({}, reason);
  return reason;
}

TEST(DescriptorCoding, AnUnknownNameHasNone) {
  EXPECT_TRUE(descriptorClassNamed("NoSuchClass").classObject.isNil());
}

TEST(DescriptorCoding, ARegisteredClassIsFoundByItsName) {
  const Class aClass = newClass("RegisteredPort", NSObject::classObject());
  registerDescriptorCoding(aClass, codingThatSays("one"));
  EXPECT_TRUE(descriptorClassNamed("RegisteredPort").classObject.isIdenticalTo(aClass));
  EXPECT_EQ(saidBy(descriptorClassNamed("RegisteredPort")), "one");
}

TEST(DescriptorCoding, TheLastRegistrationOfANameWins) {
  const Class first = newClass("TwicePort", NSObject::classObject());
  const Class second = newClass("TwicePort", NSObject::classObject());
  registerDescriptorCoding(first, codingThatSays("one"));
  registerDescriptorCoding(second, codingThatSays("two"));
  EXPECT_TRUE(descriptorClassNamed("TwicePort").classObject.isIdenticalTo(second));
  EXPECT_EQ(saidBy(descriptorClassNamed("TwicePort")), "two");
}

TEST(DescriptorCoding, ThreadsMayRegisterAndAskAtOnce) {
  const Class aClass = newClass("BusyPort", NSObject::classObject());
  registerDescriptorCoding(aClass, codingThatSays("busy"));
  std::thread registers([&aClass] {
    for (int count = 0; count < 1000; ++count) registerDescriptorCoding(aClass, codingThatSays("busy"));
  });
  for (int count = 0; count < 1000; ++count) EXPECT_EQ(saidBy(descriptorClassNamed("BusyPort")), "busy");
  registers.join();
}

}  // namespace
}  // namespace velto::wire
