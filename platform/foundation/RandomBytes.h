#pragma once

#include <cstddef>

namespace velto {

// Fills a buffer of at most 256 bytes from the kernel's random source.
void fillWithRandomBytes(void* buffer, std::size_t length) noexcept;

}  // namespace velto
