#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tests/death/DeathTable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingDelegate.h"

namespace velto::testing {

// What a survivor heard, in the words of the table.
struct Heard {
  std::string connection;
  std::string link;
  std::size_t unsettled = 0;
};

// `ofConnection` is the identifier of the connection that is looked at; events of other connections are left out.
// Every event must bear the identifier that is due to it: a wrong one becomes a "?" that no row has.
Heard heardBy(const RecordingDelegate& delegate, const NSString& ofConnection);

// The lines of level 0, sorted, with "|" between them; those that the table counts apart are counted.
struct LoggedFailures {
  explicit LoggedFailures(const LogCapture& log);

  std::string lines;
  std::size_t proxyErrors = 0;
  std::size_t cutOff = 0;
  std::size_t refusedSends = 0;
};

// Waits until the delegates have heard of every proxy error that was logged: the line comes first.
void waitForLoggedErrors(const LogCapture& log, std::initializer_list<const RecordingDelegate*> delegates);

// The result of a synchronous send.
struct Sent {
  bool tried = false;
  NSDictionary reply;
  NSError error;
};

// One survivor, once everything that is due has come.
struct Survivor {
  Heard heard;
  LoggedFailures failures;
  Sent sent;
  bool ready;
  bool closed;
};

const Row& rowOf(std::span<const Row> table, std::string_view phase);
void expectRow(const Row& row, const Survivor& survivor);
// Proxy errors a row allows beyond its own: of calls that a test made besides.
void expectRow(const Row& row, const Survivor& survivor, std::size_t further);

// Whether every row of a table has been met.
class RowsSeen {
 public:
  void add(std::string_view phase) { seen_.emplace_back(phase); }
  std::string missing(std::span<const Row> table, const std::vector<std::string_view>& exceptions) const;

 private:
  std::vector<std::string> seen_;
};

}  // namespace velto::testing
