#pragma once

#include <string>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"

namespace velto::testing {

// The messages that ends exchange, as a text and as the dictionary that travels. What a payload holds beyond its text
// (a date, bytes) is looked at when it is turned back into text: if it has changed on the way, so has the text.
NSDictionary messageOf(const std::string& payload);
std::string payloadOf(const NSDictionary& message);
// The part before the colon, and the part after it.
std::string wordOf(const std::string& payload);
std::string textOf(const std::string& payload);

// "error CODE TEXT".
std::string describe(const NSError& error);

}  // namespace velto::testing
