#pragma once

#include <span>
#include <utility>

#include "platform/xpc/wire/Frame.h"

namespace velto::testing {

// A frame as it comes out at the other end: with all its bytes in its buffer.
inline wire::Frame inOnePiece(wire::Frame sent) {
  wire::ByteBuffer body;
  std::size_t position = 0;
  const std::span<const std::uint8_t> own(sent.body);
  for (const wire::Enclosure& each : std::exchange(sent.enclosures, {})) {
    body.append(own.subspan(position, each.position - position));
    body.append(each.bytes);
    position = each.position;
  }
  body.append(own.subspan(position));
  sent.body = std::move(body);
  return sent;
}

}  // namespace velto::testing
