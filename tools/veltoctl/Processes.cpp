#include "tools/veltoctl/Processes.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fstream>
#include <iterator>

#include <pwd.h>

#include "platform/foundation/Foundation.h"

namespace velto::ctl {

std::string commandOf(std::int32_t process) {
  if (process <= 0) return "";
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
  std::string command(std::istreambuf_iterator<char>(file), {});
  while (!command.empty() && command.back() == '\0') command.pop_back();
  std::ranges::replace(command, '\0', ' ');
  return command;
}

std::string userText(std::int64_t user) {
  if (user < 0) return "?";
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> room{};
  if (getpwuid_r(static_cast<uid_t>(user), &entry, room.data(), room.size(), &found) == 0 && found != nullptr) {
    return found->pw_name;
  }
  return std::to_string(user);
}

double secondsSince(std::uint64_t sharedNanoseconds) {
  const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
  return now.count() - static_cast<double>(sharedNanoseconds) / 1e9;
}

double secondsSince1970At(std::uint64_t sharedNanoseconds) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  // The two clocks are not read at the same moment: what is more exact would differ each time.
  return std::round((now.count() - secondsSince(sharedNanoseconds)) * 1e3) / 1e3;
}

std::string timeText(double secondsSince1970) {
  const auto whole = static_cast<std::time_t>(secondsSince1970);
  std::tm parts{};
  localtime_r(&whole, &parts);
  std::array<char, 64> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return text.data();
}

NSDictionary shown(const NameDescription& name) {
  NSMutableDictionary result = NSMutableDictionary::dictionary();
  result["name"] = name.name;
  if (name.state.process > 0) result["process"] = name.state.process;
  if (name.user >= 0) result["user"] = name.user;
  const std::string command = commandOf(name.state.process);
  if (!command.empty()) result["command"] = NSString::stringWithUTF8(command);
  if (name.since > 0) result["since"] = NSDate::dateWithTimeIntervalSince1970(secondsSince1970At(name.since));
  result["registration"] = static_cast<std::int64_t>(name.state.registration);
  if (name.standIn > 0) result["standIn"] = name.standIn;
  return result;
}

}  // namespace velto::ctl
