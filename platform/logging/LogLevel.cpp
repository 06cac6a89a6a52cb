// Which lines are logged. Until it is known, the level that the entrance compares with lets every line pass, so that
// the first of them finds it out: a program that logs nothing, or says itself what it wants, never reads its
// environment.
#include "platform/logging/LogLevel.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

constexpr int kNotKnown = INT_MAX;
constexpr const char* kVariable = "VELTO_LOG";

std::optional<int> levelNamed(std::string_view name) noexcept {
  if (name == "off") return VKTLogLevelOff;
  if (name == "failures") return VKTLogLevelFailure;
  if (name == "progress") return VKTLogLevelProgress;
  return std::nullopt;
}

}  // namespace

constinit std::atomic<int> logLevel{kNotKnown};

int logLevelInForce() noexcept {
  int level = logLevel.load(std::memory_order_relaxed);
  if (level != kNotKnown) return level;
  // Nil for a program that has more rights than whoever started it.
  const char* const text = secure_getenv(kVariable);
  const std::string_view name = text == nullptr ? "" : text;
  const std::optional<int> named = levelNamed(name);
  // Of several threads that come here for the first time one goes on, and none if the program was faster.
  if (!logLevel.compare_exchange_strong(level, named.value_or(VKTLogLevelFailure))) return level;
  if (!named && !name.empty()) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                  "%s is \"%s\", which is none of off, failures and progress: failures are logged", kVariable, text);
  }
  return logLevel.load(std::memory_order_relaxed);
}

void setLogLevel(int level) noexcept {
  logLevel.store(std::min(level, kNotKnown - 1), std::memory_order_relaxed);
}

}  // namespace velto
