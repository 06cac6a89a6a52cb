#pragma once

namespace velto {

// The level in force. What no program has set is read from the environment, once, when it is asked for first. A value
// there that is no level's name is told in one line. Thread-safe.
int logLevelInForce() noexcept;

// Sets it, and the environment is not asked any more.
void setLogLevel(int level) noexcept;

}  // namespace velto
