// Events and log lines, turned into the words of the table; comparisons that name the row.

#include "tests/death/Heard.h"

#include <algorithm>
#include <map>

#include <gtest/gtest.h>

#include "tests/support/Errors.h"

namespace velto::testing {

namespace {

const std::map<std::string, std::string, std::less<>>& wordsOfErrors() {
  static const auto& words = *new std::map<std::string, std::string, std::less<>>{
      {"Connection interrupted", "interrupted"},          {"Connection invalidated", "invalidated"},
      {"Listener connection interrupted", "interrupted"}, {"Listener connection invalidated", "invalidated"},
      {"Listener not available", "unavailable"},
  };
  return words;
}

void append(std::string& list, const std::string& word, const char* separator = " ") {
  list += (list.empty() ? "" : separator) + word;
}

void addError(Heard& heard, const Event& event, const NSString& due) {
  const std::string text = event.error.localizedDescription().string();
  if (text.starts_with("Daemon connection "))
    return append(heard.link, text.substr(18) + (event.connectionID ? "?" : ""));
  if (event.error.domain().view() != kErrorDomain) {
    ++heard.unsettled;
    return;
  }
  const auto word = wordsOfErrors().find(text);
  const bool isRight = word != wordsOfErrors().end() && event.error.code() == 2 && event.connectionID == due;
  append(heard.connection, isRight ? word->second : text + "?");
}

bool takes(const std::string& line, const char* beginning, std::size_t& count) {
  if (line.find(beginning) == std::string::npos) return false;
  ++count;
  return true;
}

}  // namespace

Heard heardBy(const RecordingDelegate& delegate, const NSString& ofConnection) {
  Heard heard;
  // A client's events come with its identifier once it has one, with nil before.
  NSString due;
  for (const Event& event : delegate.events()) {
    if (event.connectionID && event.connectionID != ofConnection) continue;
    if (event.kind == Event::Kind::ready) due = event.connectionID;
    if (event.kind == Event::Kind::error) {
      addError(heard, event, due);
    } else {
      const bool isReady = event.kind == Event::Kind::ready;
      append(heard.connection, std::string(isReady ? "ready" : "message") + (event.connectionID == due ? "" : "?"));
    }
  }
  return heard;
}

LoggedFailures::LoggedFailures(const LogCapture& log) {
  auto all = log.containing(0, "");
  std::sort(all.begin(), all.end());
  for (const std::string& line : all) {
    if (takes(line, "Remote Proxy Error", proxyErrors)) continue;
    if (takes(line, "Velto lost connection with VeltoIPCDaemon", proxyErrors)) continue;
    if (takes(line, "is cut off: the stream ended in the middle of a frame", cutOff)) continue;
    if (takes(line, "Connection is not available", refusedSends)) continue;
    append(lines, line, "|");
  }
}

void waitForLoggedErrors(const LogCapture& log, std::initializer_list<const RecordingDelegate*> delegates) {
  const auto isHeard = [&] {
    const std::size_t logged = LoggedFailures(log).proxyErrors;
    std::size_t heard = 0;
    for (const RecordingDelegate* delegate : delegates) {
      for (const Event& event : delegate->errors()) heard += event.error.domain().view() == kErrorDomain ? 0 : 1;
    }
    return heard == logged;
  };
  EXPECT_TRUE(eventually(isHeard)) << "proxy errors that were logged are not heard";
}

const Row& rowOf(std::span<const Row> table, std::string_view phase) {
  const auto found = std::find_if(table.begin(), table.end(), [&](const Row& row) { return row.phase == phase; });
  if (found == table.end()) giveUp(("no such row: " + std::string(phase)).c_str());
  return *found;
}

namespace {

void expectAnswer(Answer answer, const Sent& sent) {
  EXPECT_EQ(sent.tried, answer != Answer::none);
  if (answer == Answer::none) return;
  if (answer == Answer::reply) {
    EXPECT_FALSE(sent.reply.isNil()) << sent.error.description().view();
    EXPECT_TRUE(sent.error.isNil());
    return;
  }
  EXPECT_TRUE(sent.reply.isNil());
  const bool unavailable = answer == Answer::timedOutOrUnavailable && sent.error.code() == 2;
  expectError(sent.error, unavailable ? 2 : 6, unavailable ? "Connection is not available" : "Timed out waiting");
}

}  // namespace

void expectRow(const Row& row, const Survivor& survivor) {
  expectRow(row, survivor, 0);
}

void expectRow(const Row& row, const Survivor& survivor, std::size_t further) {
  SCOPED_TRACE("the row: " + std::string(row.phase));
  EXPECT_EQ(survivor.heard.connection, row.hears);
  EXPECT_EQ(survivor.heard.link, row.hearsOfLink);
  expectAnswer(row.send, survivor.sent);
  EXPECT_GE(survivor.heard.unsettled, row.unsettledLeast);
  EXPECT_LE(survivor.heard.unsettled, row.unsettledMost + further);
  EXPECT_EQ(survivor.failures.proxyErrors, survivor.heard.unsettled);
  EXPECT_EQ(survivor.failures.lines, row.log);
  const std::size_t refused = survivor.sent.error.code() == 2 ? 1 : 0;
  EXPECT_GE(survivor.failures.refusedSends, refused);
  EXPECT_LE(survivor.failures.refusedSends, refused + further);
  EXPECT_EQ(survivor.ready, row.ready);
  EXPECT_EQ(survivor.closed, row.closed);
}

std::string RowsSeen::missing(std::span<const Row> table, const std::vector<std::string_view>& exceptions) const {
  std::string all;
  for (const Row& row : table) {
    const bool excused = std::find(exceptions.begin(), exceptions.end(), row.phase) != exceptions.end();
    if (!excused && std::find(seen_.begin(), seen_.end(), row.phase) == seen_.end())
      append(all, std::string(row.phase), "|");
  }
  return all;
}

}  // namespace velto::testing
