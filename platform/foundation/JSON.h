#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"

// Values as JSON text, in a form that loses nothing: what is read back from it is equal and of the same kinds. Plain
// text, numbers, bools, null, arrays and dictionaries look as they do everywhere; what JSON does not know is an object
// with a single key that begins with "$", such as {"$data": "AAEC"}. docs/json.md has the whole form.

// The domain of errors of both directions.
inline constexpr char VeltoJSONErrorDomain[] = "org.velto.JSON";

enum VeltoJSONErrorCode : std::int64_t {
  // The value is, or holds, what JSON has no form for: nil, an object of a class of one's own, an endpoint.
  VeltoJSONCannotBeWritten = 1,
  // Containers nest too deep, or hold themselves; or the text would be too long.
  VeltoJSONExceedsLimit = 2,
  // A text is not JSON, or not of the form.
  VeltoJSONCannotBeRead = 3,
};

namespace velto {

// Arrays, dictionaries, sets and errors that lie within each other: as many as may travel in a message. Small enough
// for recursion on any stack.
inline constexpr std::size_t kMaximumJSONDepth = 128;
// Bytes of a text after which writing it is given up. No message that can travel is as long, even if each of its bytes
// needs an escape; shared containers can stand for values that no memory holds.
inline constexpr std::size_t kMaximumJSONBytes = std::size_t{256} * 1024 * 1024;

enum class JSONLayout {
  compact,  // on one line, without blanks
  pretty,   // an entry or element on each line, two blanks for each level; no line end behind the last
};

// The value as JSON, UTF-8. Mutable kinds are written as their plain ones. On failure, an empty text, which is no JSON,
// and `*error`, if that is given. Thread-safe; a container must not be changed meanwhile.
VELTO_EXPORT std::string toJSON(const NSObject& value, JSONLayout layout = JSONLayout::compact,
                                NSError* error = nullptr);

}  // namespace velto
