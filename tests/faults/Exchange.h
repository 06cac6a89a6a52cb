#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"

namespace velto::testing {

// What became of one step of an exchange. It went well when nothing was reported.
struct Step {
  std::string name;
  bool wentWell = false;
  // Why not: an error that a handler was given or, where there is none to give, a text alone.
  NSError error;
  std::string text;
};

// What became of a whole exchange.
struct Transcript {
  std::vector<Step> steps;
  // What no fault excuses: a call without its end or with two, a handler that never ran.
  std::vector<std::string> broken;

  // Every step that a whole exchange has went well.
  bool isWhole() const;
  std::vector<Step> failures() const;
  std::string description() const;
};

// One small, complete use of everything: a named service, an anonymous listener, a client; calls with replies both ways
// and one without, a descriptor passed there and back and connected through, a listener watched, everything closed. A
// step that fails is written down, and what can still be done is done. Waits are bounded.
Transcript runExchange();

}  // namespace velto::testing
