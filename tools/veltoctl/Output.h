#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSObject.h"

namespace velto::ctl {

// Data goes to standard output, whole lines at a time, and at once; what is said about it to standard error. Colours
// only on a terminal, and never with NO_COLOR. What comes from others is made harmless for terminals first.
//
// Thread-safe.
enum class Style { plain, bold, dim, red, green, yellow, cyan };

// False when nobody reads standard output any more.
bool printLine(std::string_view line);
// As compact JSON, on one line.
bool printJSON(const NSObject& value);
// "veltoctl: text"
void say(std::string_view text);

bool isTerminal(int descriptor);
// In the style, if standard output takes colours.
std::string styled(Style style, std::string_view text);
// Control characters, and what is no UTF-8, as escapes.
std::string harmless(std::string_view text);
// How many columns a line may have; 80 when it is not known.
unsigned columnsOf(int descriptor);
unsigned rowsOf(int descriptor);

// Lines of cells, below each other: a column is as wide as its widest cell, the last as wide as it likes.
class Table {
 public:
  // Cells under these columns are numbers, and stand at the right.
  explicit Table(std::vector<std::string> headings, std::vector<bool> isNumber = {});
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  // The headings only if they are wanted.
  std::vector<std::string> lines(bool hasHeadings) const;

 private:
  std::vector<std::string> headings_;
  std::vector<bool> isNumber_;
  std::vector<std::vector<std::string>> rows_;
};

// "3 d 4 h", "12 s", "250 ms", "12.5 µs"
std::string durationText(double seconds);
// "12.5 kB"
std::string bytesText(double bytes);
// "12.5 k"
std::string countText(double count);

}  // namespace velto::ctl
