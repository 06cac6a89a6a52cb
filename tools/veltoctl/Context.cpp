#include "tools/veltoctl/Context.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"
#include "tools/ValueFromJSON.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {

NSDictionary messageFrom(const std::string& json, const std::string& where) {
  if (json.find_first_not_of(" \t\r\n") == std::string::npos) return NSDictionary::dictionary();
  NSError error;
  const NSObject value = tools::valueFromJSON(json, &error);
  if (value.isNil()) throw CommandError(ExitCode::usage, where + ": " + error.localizedDescription().string());
  if (!value.is<NSDictionary>()) {
    throw CommandError(ExitCode::usage, where + ": a message is an object, such as {\"op\": \"sum\"}");
  }
  return value.as<NSDictionary>();
}

std::string contentsOf(const std::string& path) {
  if (path == "-") return {std::istreambuf_iterator<char>(std::cin), {}};
  std::ifstream file(path, std::ios::binary);
  if (!file) throw CommandError(ExitCode::usage, path + " cannot be read: " + std::strerror(errno));
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

}  // namespace velto::ctl
