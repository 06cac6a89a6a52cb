#include "VeltoIPC/Outcome.h"

#include <ostream>
#include <stdexcept>

namespace velto {

const char* nameOf(Failure failure) noexcept {
  switch (failure) {
    case Failure::refused:
      return "refused";
    case Failure::dropped:
      return "dropped";
    case Failure::failed:
      return "failed";
    case Failure::timedOut:
      return "timedOut";
    case Failure::cancelled:
      return "cancelled";
    case Failure::overLimit:
      return "overLimit";
    case Failure::full:
      return "full";
    case Failure::peerGone:
      return "peerGone";
    case Failure::closed:
      return "closed";
    case Failure::unavailable:
      return "unavailable";
    case Failure::taken:
      return "taken";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, const CallError& error) {
  return out << nameOf(error.failure()) << ": " << error.text();
}

namespace detail {

void raise(const CallError& error) {
  throw std::runtime_error(std::string(nameOf(error.failure())) + ": " + error.text());
}

}  // namespace detail
}  // namespace velto
