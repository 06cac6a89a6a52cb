// What the file is, line by line; and where it lies.
#include "daemon/ServiceFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "VeltoIPC/Limits.h"

namespace velto {
namespace {

constexpr std::string_view kBlanks = " \t\r";
// Of a file that says one line.
constexpr std::size_t kMostBytes = 65'536;

std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(kBlanks);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// As a shell takes words apart, without anything that it puts in their place. False for a quotation without its end.
bool splitCommand(std::string_view text, std::vector<std::string>& words) {
  char quote = 0;
  bool isInWord = false;
  for (std::size_t index = 0; index < text.size(); ++index) {
    const char each = text[index];
    if (quote == 0 && kBlanks.find(each) != kBlanks.npos) {
      isInWord = false;
      continue;
    }
    if (!std::exchange(isInWord, true)) words.emplace_back();
    const bool isEscape = each == '\\' && quote != '\'' && index + 1 < text.size();
    if (isEscape) {
      words.back() += text[++index];
    } else if (each == quote) {
      quote = 0;
    } else if (quote == 0 && (each == '"' || each == '\'')) {
      quote = each;
    } else {
      words.back() += each;
    }
  }
  return quote == 0;
}

bool readLine(std::string_view line, ServiceFile& file, std::string& reason) {
  const auto sign = line.find('=');
  if (sign == line.npos) {
    reason = "\"" + std::string(line) + "\" is not of the form key=value";
    return false;
  }
  const std::string_view key = trimmed(line.substr(0, sign));
  const std::string_view value = trimmed(line.substr(sign + 1));
  if (key == "Exec") {
    file.command.clear();
    if (splitCommand(value, file.command) && !file.command.empty()) return true;
    reason = file.command.empty() ? "Exec names no program" : "a quotation of Exec has no end";
  } else if (key == "SystemdUnit") {
    file.unit = value;
    if (!value.empty() && value.front() != '-') return true;
    reason = "SystemdUnit names no unit";
  } else {
    reason = "\"" + std::string(key) + "\" is neither Exec nor SystemdUnit";
  }
  return false;
}

std::string variable(const char* name, const std::string& otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != 0 ? value : otherwise;
}

}  // namespace

std::optional<ServiceFile> ServiceFile::parse(std::string_view text, std::string& reason) {
  ServiceFile file;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    const bool saysNothing = line.empty() || line.front() == '#' || line.front() == ';' || line.front() == '[';
    if (saysNothing || readLine(line, file, reason)) continue;
    reason = "line " + std::to_string(number) + ": " + reason;
    return std::nullopt;
  }
  if (file.command.empty() != file.unit.empty()) return file;
  reason = file.unit.empty() ? "there is neither Exec nor SystemdUnit" : "there are both Exec and SystemdUnit";
  return std::nullopt;
}

std::optional<ServiceFile> ServiceFile::find(const std::string& name, const std::vector<std::string>& folders,
                                             std::string& reason) {
  const bool isFileName = !name.empty() && name != "." && name != ".." && name.find('/') == name.npos &&
                          name.find('\0') == name.npos;
  if (!isFileName) return std::nullopt;
  for (const std::string& folder : folders) {
    const std::string path = folder + "/" + name + ".service";
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) continue;
    std::ifstream stream(path, std::ios::binary);
    std::string text(kMostBytes, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    if (stream.bad() || !stream.eof()) {
      reason = path + ": " + (stream.eof() || stream.bad() ? std::strerror(errno) : "it is longer than 65536 bytes");
      return std::nullopt;
    }
    auto file = parse(text, reason);
    if (file) {
      file->path = path;
    } else {
      reason = path + ": " + reason;
    }
    return file;
  }
  return std::nullopt;
}

std::vector<std::string> ServiceFile::folders() {
  std::string all = variable("XDG_DATA_HOME", variable("HOME", "") + "/.local/share") + ":" +
                    variable("XDG_DATA_DIRS", "/usr/local/share:/usr/share") + ":";
  std::vector<std::string> folders;
  for (auto end = all.find(':'); end != all.npos; end = all.find(':')) {
    if (all.front() == '/') folders.push_back(all.substr(0, end) + "/velto-ipc/services");
    all.erase(0, end + 1);
  }
  return folders;
}

}  // namespace velto
