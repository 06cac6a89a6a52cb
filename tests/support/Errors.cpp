// What an error must look like, in all its parts.

#include "tests/support/Errors.h"

#include <gtest/gtest.h>

#include "platform/xpc/NSXPCError.h"

namespace velto::testing {

void expectError(const NSError& error, std::int64_t code, const std::string& text) {
  ASSERT_FALSE(error.isNil()) << "no error, where '" << text << "' was expected";
  EXPECT_EQ(error.domain().view(), kErrorDomain);
  EXPECT_EQ(error.code(), code) << error.description().view();
  EXPECT_EQ(error.localizedDescription().view(), text);
  EXPECT_EQ(error.userInfo().count(), 1u);
  EXPECT_EQ(error.userInfo()[NSLocalizedDescriptionKey].stringValue(), text);
}

void expectPlatformError(const NSError& error, std::int64_t code) {
  ASSERT_FALSE(error.isNil()) << "no error, where one of the platform was expected";
  EXPECT_EQ(error.domain(), NSXPCErrorDomain) << error.description().view();
  EXPECT_EQ(error.code(), code) << error.description().view();
}

}  // namespace velto::testing
