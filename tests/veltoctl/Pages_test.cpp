// What is written about the programs says what they say of themselves.
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "tests/veltoctl/Command.h"

namespace velto::testing {
namespace {

const std::filesystem::path kSource = VELTO_SOURCE;
const std::filesystem::path kCompletions = kSource / "tools/veltoctl/completion";

std::string contentsOf(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  EXPECT_FALSE(text.str().empty()) << path;
  return text.str();
}

std::set<std::string> allIn(const std::string& text, const std::regex& pattern) {
  std::set<std::string> found;
  for (std::sregex_iterator each(text.begin(), text.end(), pattern), end; each != end; ++each) {
    found.insert((*each)[1].str());
  }
  return found;
}

std::set<std::string> optionsIn(const std::string& help) {
  return allIn(help, std::regex(R"((?:^|\n|,)\s*(--[a-z-]+))"));
}

std::set<std::string> commands() {
  const std::string help = run({"--help"}).output;
  return allIn(help.substr(help.find("Subcommands:")), std::regex(R"(\n  ([a-z]+) )"));
}

// What stands under "## NAME" in the page.
std::string sectionOf(const std::string& page, const std::string& command) {
  const std::size_t start = page.find("\n## " + command);
  if (start == std::string::npos) return "";
  return page.substr(start, page.find("\n#", start + 2) - start);
}

bool succeeds(const std::string& command) {
  return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe)
}

}  // namespace

TEST(TheManual, HasEachCommandAndEachOption) {
  const std::string page = contentsOf(kSource / "docs/man/veltoctl.1.scd");
  const auto all = commands();
  EXPECT_EQ(all.size(), 10u);
  for (const std::string& command : all) {
    const std::string section = sectionOf(page, command);
    EXPECT_FALSE(section.empty()) << command;
    const auto options = optionsIn(run({command, "--help"}).output);
    EXPECT_TRUE(options.contains("--help")) << command;
    for (const std::string& option : options) {
      if (option == "--help") continue;
      EXPECT_NE(section.find("*" + option + "*"), std::string::npos) << command << ' ' << option;
    }
    // And none that it has not.
    for (const std::string& option : allIn(section, std::regex(R"(\n\*(--[a-z-]+)\*)"))) {
      EXPECT_TRUE(options.contains(option)) << command << ' ' << option;
    }
  }
  for (const std::string& option : optionsIn(run({"--help"}).output)) {
    EXPECT_NE(page.find("*" + option + "*"), std::string::npos) << option;
  }
}

TEST(TheManual, HasEachExitCode) {
  const std::string page = contentsOf(kSource / "docs/man/veltoctl.1.scd");
  for (int code = 0; code <= static_cast<int>(ctl::ExitCode::noBroker); ++code) {
    const std::string row = "|  " + std::to_string(code) + "\n:- " + nameOf(static_cast<ctl::ExitCode>(code)) + "\n";
    EXPECT_NE(page.find(row), std::string::npos) << row;
  }
}

TEST(TheManual, HasEachOptionOfTheBroker) {
  ChildProcess process({VELTO_DAEMON, "--help"});
  std::string help;
  while (const auto line = process.readLine()) help += *line + "\n";
  const auto options = optionsIn(help);
  EXPECT_TRUE(options.contains("--leave-when-idle"));
  const std::string page = contentsOf(kSource / "docs/man/VeltoIPCDaemon.8.scd");
  for (const std::string& option : options) EXPECT_NE(page.find("*" + option + "*"), std::string::npos) << option;
}

TEST(TheManual, IsRenderedWhereScdocIs) {
  if (!succeeds("command -v scdoc > /dev/null")) GTEST_SKIP() << "there is no scdoc";
  for (const char* const page : {"veltoctl.1", "VeltoIPCDaemon.8", "velto-ipc.7"}) {
    const auto source = kSource / "docs/man" / (std::string(page) + ".scd");
    EXPECT_TRUE(succeeds("scdoc < '" + source.string() + "' > /dev/null")) << page;
  }
}

TEST(TheCompletions, KnowEachCommandAndEachOption) {
  const std::string bash = contentsOf(kCompletions / "veltoctl.bash"), zsh = contentsOf(kCompletions / "_veltoctl"),
                    fish = contentsOf(kCompletions / "veltoctl.fish");
  for (const std::string& command : commands()) {
    EXPECT_NE(bash.find(command), std::string::npos) << command;
    EXPECT_NE(zsh.find("'" + command + ":"), std::string::npos) << command;
    EXPECT_NE(fish.find("-a " + command + " "), std::string::npos) << command;
    for (const std::string& option : optionsIn(run({command, "--help"}).output)) {
      EXPECT_NE(bash.find(option), std::string::npos) << command << ' ' << option;
      EXPECT_NE(zsh.find(option), std::string::npos) << command << ' ' << option;
      EXPECT_NE(fish.find("-l " + option.substr(2) + " "), std::string::npos) << command << ' ' << option;
    }
  }
}

TEST(TheCompletions, CanBeReadByTheirShells) {
  const struct {
    const char* shell;
    const char* file;
  } all[] = {{"bash", "veltoctl.bash"}, {"zsh", "_veltoctl"}, {"fish", "veltoctl.fish"}};
  for (const auto& [shell, file] : all) {
    if (!succeeds(std::string("command -v ") + shell + " > /dev/null")) continue;
    EXPECT_TRUE(succeeds(std::string(shell) + " -n '" + (kCompletions / file).string() + "'")) << shell;
  }
}

TEST(TheCompletions, OfBashOfferWhatFits) {
  const auto offered = [](const std::string& words, int at) {
    ChildProcess bash({"/bin/bash", "-c",
                       "source '" + (kCompletions / "veltoctl.bash").string() + "'; COMP_WORDS=(" + words +
                           "); COMP_CWORD=" + std::to_string(at) + "; _veltoctl; echo \"${COMPREPLY[*]}\""});
    return bash.readLine().value_or("nothing");
  };
  EXPECT_EQ(offered("veltoctl mo", 1), "monitor");
  EXPECT_EQ(offered("veltoctl send org.a --as", 3), "--async");
  EXPECT_EQ(offered("veltoctl --json st", 2), "stats");
}

}  // namespace velto::testing
