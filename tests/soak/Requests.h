#pragma once

#include <random>

#include "platform/foundation/NSDictionary.h"

namespace velto::soak {

using Random = std::mt19937_64;

std::size_t below(Random& random, std::size_t bound);

// A message of random values: nested containers, and now and then data of up to some hundred thousand bytes.
NSDictionary makeRequest(Random& random);

// The one right answer to a request: a digest of it, and a copy in which every value has been changed in a known way.
NSDictionary replyTo(const NSDictionary& request);

}  // namespace velto::soak
