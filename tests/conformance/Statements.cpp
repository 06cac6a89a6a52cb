// The record of what each test proved. A test's statements are kept while it runs and written when its result is known,
// one line each, to the file named by VELTO_CONFORMANCE_TABLE: "id<TAB>statement<TAB>test<TAB>result". A test that
// named none leaves a line with an empty id, so that it cannot go unnoticed.

#include "tests/conformance/Statements.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace velto::testing {
namespace {

std::string resultOf(const ::testing::TestResult& result) {
  if (result.Skipped()) return "skipped";
  return result.Passed() ? "passed" : "failed";
}

class StatementRecord final : public ::testing::EmptyTestEventListener {
 public:
  using Statements = std::vector<std::pair<std::string, std::string>>;

  void note(const char* id, const char* statement) { statements_.emplace_back(id, statement); }

  void OnTestStart(const ::testing::TestInfo&) override { statements_.clear(); }

  void OnTestEnd(const ::testing::TestInfo& test) override {
    const char* path = std::getenv("VELTO_CONFORMANCE_TABLE");
    if (path == nullptr) return;
    if (statements_.empty()) note("", "");
    std::ostringstream lines;
    for (const auto& [id, statement] : statements_) {
      lines << id << '\t' << statement << '\t' << test.test_suite_name() << '.' << test.name() << '\t'
            << resultOf(*test.result()) << '\n';
    }
    // In one piece: other programs may append to the same file.
    std::ofstream(path, std::ios::app) << lines.str() << std::flush;
  }

 private:
  Statements statements_;
};

// Belongs to the test framework, which destroys it at the end.
StatementRecord& record() {
  static StatementRecord& made = *[] {
    auto* listener = new StatementRecord;
    ::testing::UnitTest::GetInstance()->listeners().Append(listener);
    return listener;
  }();
  return made;
}

// Listens from the start of the program: a test that proves nothing must be seen too.
[[maybe_unused]] const StatementRecord& startedEarly = record();

}  // namespace

void proves(const char* id, const char* statement) {
  record().note(id, statement);
  ::testing::Test::RecordProperty(id, statement);
}

}  // namespace velto::testing
