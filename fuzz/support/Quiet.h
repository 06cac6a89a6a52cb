#pragma once

namespace velto::fuzzing {

// Every line of the log is formatted, since what a peer sent stands in it, and then dropped.
void formatLogAndDropIt();

}  // namespace velto::fuzzing
