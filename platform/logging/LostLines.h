#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace velto {

// Bytes of a text that are kept: texts may hold what a peer has sent.
inline constexpr std::size_t kMaximumLogTextBytes = std::size_t{16} * 1024;

// What is told in place of lines that had to be given up: "17 lines were lost".
inline std::string textOfLostLines(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " line was lost" : " lines were lost");
}

}  // namespace velto
