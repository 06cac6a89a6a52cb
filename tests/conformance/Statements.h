#pragma once

// What a conformance test proves, said at its top:
//
//   PROVES("listener.close.3", "close: ends the platform's connection before it leaves the table");
//
// The identifier is <subject>.<topic>.<number>; identifier and wording stand, separated by a tab, in one of the lists
// statements-client.txt and statements-listener.txt. A test may prove several statements, a statement may have several
// tests. print_table runs the programs, holds what was proved against the lists and prints the table.
#define PROVES(id, statement) ::velto::testing::proves(id, statement)

namespace velto::testing {

// Notes that the running test proves the statement; the test's result decides whether it did.
void proves(const char* id, const char* statement);

}  // namespace velto::testing
