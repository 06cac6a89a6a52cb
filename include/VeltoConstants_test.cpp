#include "VeltoIPC/VeltoConstants.h"

#include <string_view>

#include <gtest/gtest.h>

TEST(VeltoConstants, ForeverIsMinusOneAndCanBeWritten) {
  EXPECT_EQ(VKT_IPC_TIME_FOREVER, -1.0);
  VKT_IPC_TIME_FOREVER = -2.0;
  EXPECT_EQ(VKT_IPC_TIME_FOREVER, -2.0);
  VKT_IPC_TIME_FOREVER = -1.0;
}

TEST(VeltoConstants, VersionIsAWhatStringThatEndsInANewline) {
  EXPECT_EQ(VeltoIPCVersionNumber, 0.0);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(VeltoIPCVersionString)),
            "@(#)PROGRAM:VeltoIPC  PROJECT:VeltoIPC-\n");
}
