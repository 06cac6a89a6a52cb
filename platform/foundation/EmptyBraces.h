#pragma once

#include <initializer_list>

namespace velto {

// An element that nothing converts to.
struct NoElement {
  NoElement(const NoElement&) = delete;
};

// What a pair of empty braces converts to, and nothing else: better than to a class with a default constructor. Beside
// a parameter for a dictionary it takes `{}`, which would otherwise make a nil one, and leaves everything else alone.
using EmptyBraces = std::initializer_list<NoElement>;

}  // namespace velto
