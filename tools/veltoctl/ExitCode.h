#pragma once

#include <stdexcept>
#include <string>

#include "VeltoIPC/Outcome.h"

namespace velto::ctl {

// How veltoctl ends. Numbers are its interface, listed in veltoctl(1), and never reused.
enum class ExitCode : int {
  success = 0,
  // What no other number says.
  failure = 1,
  // Arguments or JSON that cannot be used.
  usage = 2,
  // Nobody serves the name.
  notFound = 3,
  // An end, or the broker, does not take it.
  refused = 4,
  timedOut = 5,
  // The other end has gone before it was done.
  lost = 6,
  // The service answered with an error of its own.
  answeredWithError = 7,
  // The service let go of the message unanswered.
  unanswered = 8,
  // There is no broker that can be asked.
  noBroker = 9,
};

const char* nameOf(ExitCode code) noexcept;
ExitCode exitCodeOf(Failure failure) noexcept;

// Ends the command: one sentence for people, and the code.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  explicit CommandError(const CallError& error) : CommandError(exitCodeOf(error.failure()), error.text()) {}

  ExitCode code() const noexcept { return code_; }

 private:
  ExitCode code_;
};

}  // namespace velto::ctl
