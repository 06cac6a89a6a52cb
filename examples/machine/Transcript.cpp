// Lines of several processes go to one place, so each is written whole, at once, and says who speaks.

#include "examples/machine/Transcript.h"

#include <cstdio>
#include <utility>

namespace machine {

Transcript::Transcript(std::string speaker) : speaker_(std::move(speaker)) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

void Transcript::say(const NSString& text) {
  std::printf("[%s] %s\n", speaker_.c_str(), text.UTF8String());
}

bool Transcript::check(bool isSo, const NSString& what, const NSObject& insteadSeen) {
  if (isSo) {
    say(what);
  } else {
    isComplete_ = false;
    say(NSString::stringWithFormat("MISSING: %@; instead: %@", what, insteadSeen));
  }
  return isSo;
}

}  // namespace machine
