#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/NSUUID.h"
#include "platform/foundation/Value.h"

namespace velto {

// The descriptions of plain values.
std::string textOfNumber(const Value& number);
std::string textOfData(std::span<const std::uint8_t> bytes);
std::string textOfDate(double seconds);
std::string textOfUUID(const NSUUID::Bytes& bytes);

// The shortest text that reads back as the same number.
std::string shortestText(double value);

inline std::string_view viewOf(std::span<const std::uint8_t> bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace velto
