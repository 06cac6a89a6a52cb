#include "tools/veltoctl/Connecting.h"

#include <algorithm>
#include <utility>

#include "tools/veltoctl/BrokerLink.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {

std::chrono::nanoseconds secondsOf(double seconds) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(seconds, 9e9) * 1e9));
}

Client connected(const std::string& name, double patience) {
  BrokerLink().requireServed(name);
  ClientOptions options;
  options.patience = std::chrono::duration_cast<std::chrono::milliseconds>(secondsOf(patience));
  auto client = Client::connect(name, std::move(options));
  if (!client) throw CommandError(client.error());
  return std::move(client).value();
}

}  // namespace velto::ctl
