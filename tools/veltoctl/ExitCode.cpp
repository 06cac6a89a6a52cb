#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {

const char* nameOf(ExitCode code) noexcept {
  switch (code) {
    case ExitCode::success:
      return "success";
    case ExitCode::failure:
      break;
    case ExitCode::usage:
      return "usage";
    case ExitCode::notFound:
      return "notFound";
    case ExitCode::refused:
      return "refused";
    case ExitCode::timedOut:
      return "timedOut";
    case ExitCode::lost:
      return "lost";
    case ExitCode::answeredWithError:
      return "answeredWithError";
    case ExitCode::unanswered:
      return "unanswered";
    case ExitCode::noBroker:
      return "noBroker";
  }
  return "failure";
}

ExitCode exitCodeOf(Failure failure) noexcept {
  switch (failure) {
    case Failure::refused:
    case Failure::overLimit:
    case Failure::full:
    case Failure::taken:
      return ExitCode::refused;
    case Failure::dropped:
      return ExitCode::unanswered;
    case Failure::failed:
      return ExitCode::answeredWithError;
    case Failure::timedOut:
      return ExitCode::timedOut;
    case Failure::peerGone:
      return ExitCode::lost;
    case Failure::unavailable:
      return ExitCode::notFound;
    case Failure::cancelled:
    case Failure::closed:
      break;
  }
  return ExitCode::failure;
}

}  // namespace velto::ctl
