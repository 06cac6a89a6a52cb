#include "platform/foundation/NSCoding.h"

#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

Class defined(const char* name) {
  return Class::define(name, NSObject::classObject());
}

ClassCoding codingThatAnswers(const char* text) {
  return {[text](const NSObject&) -> NSObject { return text; }, [text](const NSObject&) -> NSObject { return text; }};
}

TEST(NSCoding, FindsWhatIsRegisteredUnderAName) {
  const Class made = defined("CodingTestFound");
  registerClassCoding(made, codingThatAnswers("coded"));
  const CodedClass found = codedClassNamed("CodingTestFound");
  EXPECT_EQ(found.classObject, made);
  EXPECT_EQ(found.coding.encode(nil).stringValue(), "coded");
  EXPECT_EQ(found.coding.decode(nil).stringValue(), "coded");
}

TEST(NSCoding, AnswersNilForAnUnknownName) {
  EXPECT_TRUE(codedClassNamed("CodingTestMissing").classObject.isNil());
  EXPECT_TRUE(codedClassNamed("").classObject.isNil());
  EXPECT_FALSE(codedClassNamed("CodingTestMissing").coding.decode);
}

TEST(NSCoding, TheLastRegistrationOfANameWins) {
  static const Class& first = *new Class(defined("CodingTestTwice"));  // classes live for ever
  registerClassCoding(first, codingThatAnswers("first"));
  static const Class& second = *new Class(defined("CodingTestTwice"));
  registerClassCoding(second, codingThatAnswers("second"));
  EXPECT_EQ(codedClassNamed("CodingTestTwice").classObject, second);
  EXPECT_EQ(codedClassNamed("CodingTestTwice").coding.encode(nil).stringValue(), "second");
}

TEST(NSCoding, RegisteringNilDoesNothing) {
  registerClassCoding(nil, codingThatAnswers("nothing"));
  EXPECT_TRUE(codedClassNamed("").classObject.isNil());
}

TEST(NSCoding, WhatARegistrationReplacesMayUseTheRegistryAsItGoes) {
  const Class made = defined("CodingTestReplaced");
  bool found = false;
  {
    const std::shared_ptr<void> atEnd(
        nullptr, [&](void*) { found = !codedClassNamed("CodingTestReplaced").classObject.isNil(); });
    registerClassCoding(made, {[atEnd](const NSObject& object) { return object; }, nullptr});
  }
  registerClassCoding(made, codingThatAnswers("new"));
  EXPECT_TRUE(found);
}

// A callable whose copies are noticed.
struct Copied {
  std::function<void()> whenCopied;

  explicit Copied(std::function<void()> whenItIs) : whenCopied(std::move(whenItIs)) {}
  Copied(const Copied& other) : whenCopied(other.whenCopied) { whenCopied(); }
  NSObject operator()(const NSObject& object) const { return object; }
};

TEST(NSCoding, WhatIsCopiedMayUseTheRegistry) {
  const Class made = defined("CodingTestCopied");
  int copies = 0;
  registerClassCoding(made, {Copied([&copies] {
                               codedClassNamed("CodingTestMissing");  // blocks for ever if the lock is held
                               ++copies;
                             }),
                             nullptr});
  copies = 0;
  const CodedClass found = codedClassNamed("CodingTestCopied");
  EXPECT_EQ(copies, 1);
  registerClassCoding(made, codingThatAnswers("coded"));
}

TEST(NSCoding, IsUsedByManyThreads) {
  const Class made = defined("CodingTestThreads");
  registerClassCoding(made, codingThatAnswers("coded"));
  std::vector<std::thread> threads;
  for (int each = 0; each < 4; ++each) {
    threads.emplace_back([made] {
      for (int round = 0; round < 1000; ++round) {
        registerClassCoding(made, codingThatAnswers("coded"));
        EXPECT_EQ(codedClassNamed("CodingTestThreads").classObject, made);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace velto
