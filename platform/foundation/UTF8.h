#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace velto {

// Whether the bytes are UTF-8: no surrogates, no overlong forms, nothing above U+10FFFF, nothing cut short.
bool isValidUTF8(std::string_view bytes) noexcept;

// The text, with U+FFFD in place of every broken sequence. A broken sequence is the longest start of a valid one, or
// one byte if there is none.
std::string repairedUTF8(std::string_view bytes);

// The largest length of at most `limit` at which the text can be cut without breaking a character.
std::size_t lengthCutBetweenCharacters(std::string_view text, std::size_t limit) noexcept;

}  // namespace velto
