#include "tools/veltoctl/Output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/foundation/JSON.h"
#include "platform/foundation/NSString.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {
namespace {

std::mutex& outputMutex() {
  static std::mutex mutex;
  return mutex;
}

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool hasColours() {
  static const bool has = [] {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const kind = std::getenv("TERM");
    const bool isDumb = kind == nullptr || std::string_view(kind) == "dumb";
    return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0') && !isDumb;
  }();
  return has;
}

winsize sizeOf(int descriptor) {
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) != 0) size = {};
  return size;
}

std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char each) { return (static_cast<unsigned char>(each) & 0xC0) != 0x80; }));
}

std::string scaled(double value, double step, const std::array<const char*, 5>& units) {
  std::size_t unit = 0;
  while (value >= step * 0.9995 && unit + 1 < units.size()) {
    value /= step;
    ++unit;
  }
  std::array<char, 32> text{};
  const bool isWhole = unit == 0 && value == std::floor(value);
  std::snprintf(text.data(), text.size(), isWhole || value >= 99.95 ? "%.0f" : "%.1f", value);
  return std::string(text.data()) + units[unit];
}

}  // namespace

bool isTerminal(int descriptor) {
  return ::isatty(descriptor) == 1;
}

bool printLine(std::string_view line) {
  std::string whole(line);
  whole += '\n';
  const std::lock_guard lock(outputMutex());
  return writeAll(STDOUT_FILENO, whole);
}

bool printJSON(const NSObject& value) {
  NSError error;
  const std::string text = toJSON(value, JSONLayout::compact, &error);
  if (text.empty())
    throw CommandError(ExitCode::failure,
                       "what has come has no form in JSON: " + error.localizedDescription().string());
  return printLine(text);
}

void say(std::string_view text) {
  const std::string whole = "veltoctl: " + harmless(text) + "\n";
  const std::lock_guard lock(outputMutex());
  writeAll(STDERR_FILENO, whole);
}

std::string styled(Style style, std::string_view text) {
  if (style == Style::plain || !hasColours()) return std::string(text);
  const char* code = "";
  switch (style) {
    case Style::plain:
      break;
    case Style::bold:
      code = "1";
      break;
    case Style::dim:
      code = "2";
      break;
    case Style::red:
      code = "31";
      break;
    case Style::green:
      code = "32";
      break;
    case Style::yellow:
      code = "33";
      break;
    case Style::cyan:
      code = "36";
      break;
  }
  return "\033[" + std::string(code) + "m" + std::string(text) + "\033[0m";
}

std::string harmless(std::string_view text) {
  const NSString valid = NSString::stringWithUTF8(text);
  std::string result;
  const std::string_view bytes = valid.view();
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    const auto each = static_cast<unsigned char>(bytes[at]);
    // The control characters of Latin 1 have two bytes.
    const bool isTwoByteControl =
        each == 0xC2 && at + 1 < bytes.size() && static_cast<unsigned char>(bytes[at + 1]) < 0xA0;
    if (each >= 0x20 && each != 0x7F && !isTwoByteControl) {
      result += bytes[at];
      continue;
    }
    std::array<char, 8> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x",
                  isTwoByteControl ? static_cast<unsigned char>(bytes[++at]) : each);
    result += escape.data();
  }
  return result;
}

unsigned columnsOf(int descriptor) {
  const unsigned columns = sizeOf(descriptor).ws_col;
  return columns > 0 ? columns : 80;
}

unsigned rowsOf(int descriptor) {
  const unsigned rows = sizeOf(descriptor).ws_row;
  return rows > 0 ? rows : 24;
}

Table::Table(std::vector<std::string> headings, std::vector<bool> isNumber)
    : headings_(std::move(headings)), isNumber_(std::move(isNumber)) {
  isNumber_.resize(headings_.size());
}

std::vector<std::string> Table::lines(bool hasHeadings) const {
  std::vector<std::size_t> widths(headings_.size(), 0);
  const auto widen = [&widths](const std::vector<std::string>& cells) {
    for (std::size_t each = 0; each < widths.size(); ++each)
      widths[each] = std::max(widths[each], widthOf(cells[each]));
  };
  if (hasHeadings) widen(headings_);
  for (const auto& row : rows_) widen(row);
  const auto lineOf = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t each = 0; each < widths.size(); ++each) {
      const std::string padding(widths[each] - widthOf(cells[each]), ' ');
      const bool isLast = each + 1 == widths.size();
      line += isNumber_[each] ? padding + cells[each] : cells[each] + (isLast ? "" : padding);
      if (!isLast) line += "  ";
    }
    return line;
  };
  std::vector<std::string> lines;
  if (hasHeadings) lines.push_back(styled(Style::bold, lineOf(headings_)));
  for (const auto& row : rows_) lines.push_back(lineOf(row));
  return lines;
}

std::string durationText(double seconds) {
  if (seconds < 1) return scaled(seconds * 1e9, 1000, {" ns", " µs", " ms", " s", " s"});
  const auto whole = static_cast<long long>(seconds);
  if (whole < 60) return scaled(seconds, 1e9, {" s", "", "", "", ""});
  const auto two = [](long long large, const char* unit, long long small, const char* smallUnit) {
    return std::to_string(large) + unit + (small > 0 ? " " + std::to_string(small) + smallUnit : "");
  };
  if (whole < 3600) return two(whole / 60, " min", whole % 60, " s");
  if (whole < 86400) return two(whole / 3600, " h", whole / 60 % 60, " min");
  return two(whole / 86400, " d", whole / 3600 % 24, " h");
}

std::string bytesText(double bytes) {
  return scaled(bytes, 1000, {" B", " kB", " MB", " GB", " TB"});
}

std::string countText(double count) {
  return scaled(count, 1000, {"", " k", " M", " G", " T"});
}

}  // namespace velto::ctl
