#include "daemon/ServiceFile.h"

#include <gtest/gtest.h>

namespace velto {
namespace {

using Words = std::vector<std::string>;

std::string reasonOf(std::string_view text) {
  std::string reason;
  EXPECT_FALSE(ServiceFile::parse(text, reason)) << text;
  return reason;
}

TEST(ServiceFile, NamesAProgramAndItsArguments) {
  std::string reason;
  const auto file = ServiceFile::parse(
      "; one\n\n[Service]\n  Exec = /bin/run  plain \"two words\" 'and\\more' a\\ blank \"\\\"\" ''\r\n", reason);
  ASSERT_TRUE(file) << reason;
  EXPECT_EQ(file->command, (Words{"/bin/run", "plain", "two words", "and\\more", "a blank", "\"", ""}));
  EXPECT_EQ(file->unit, "");
}

TEST(ServiceFile, NamesAUnit) {
  std::string reason;
  const auto file = ServiceFile::parse("SystemdUnit=some.service", reason);
  ASSERT_TRUE(file) << reason;
  EXPECT_EQ(file->unit, "some.service");
  EXPECT_TRUE(file->command.empty());
}

TEST(ServiceFile, SaysWhatIsWrongAndInWhichLine) {
  EXPECT_EQ(reasonOf(""), "there is neither Exec nor SystemdUnit");
  EXPECT_EQ(reasonOf("Exec=a\nSystemdUnit=b"), "there are both Exec and SystemdUnit");
  EXPECT_EQ(reasonOf("\nExec\n"), "line 2: \"Exec\" is not of the form key=value");
  EXPECT_EQ(reasonOf("exec=a"), "line 1: \"exec\" is neither Exec nor SystemdUnit");
  EXPECT_EQ(reasonOf("Exec= "), "line 1: Exec names no program");
  EXPECT_EQ(reasonOf("Exec=a 'b"), "line 1: a quotation of Exec has no end");
  EXPECT_EQ(reasonOf("SystemdUnit=--now"), "line 1: SystemdUnit names no unit");
}

}  // namespace
}  // namespace velto
