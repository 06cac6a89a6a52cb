#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSObject.h"

namespace velto::tools {

// What the single key of a marked object says about its value; docs/json.md.
enum class JSONMarker { isSigned, isUnsigned, isDouble, data, date, uuid, url, set, dictionary, error };

// None for a key that is no marker.
std::optional<JSONMarker> markerNamed(std::string_view key);
// The key.
std::string nameOf(JSONMarker marker);
// What stands under the marker, for people: "a text of base 64".
std::string expectedUnder(JSONMarker marker);

// The value that a text stands for under a marker; nil if that is not what belongs there.
NSObject valueOfMarkedText(JSONMarker marker, const std::string& text);

}  // namespace velto::tools
