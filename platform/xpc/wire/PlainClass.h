#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/foundation/Class.h"

namespace velto::wire {

// The value classes that the wire has a form of its own for. Mutable classes travel as their immutable ones.
enum class PlainClass : std::uint8_t { string, number, dictionary, array, data, date, null, set, uuid, url, error };
inline constexpr std::size_t kPlainClasses = 11;

// The immutable class.
const ClassBody& classBodyOf(PlainClass plain) noexcept;

}  // namespace velto::wire
