#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::ctl {

// Larger ones are passed on, and not looked into.
inline constexpr std::size_t kMostShownBytes = std::size_t{1} << 20;

struct PassedFrame {
  // Without its body when that is too large.
  wire::Frame frame;
  // With its header.
  std::size_t bytes = 0;
};

// A frame that passes by, for people: {"kind": "call", "call": 7, "selector": …, "arguments": […], "bytes": 123}. What
// has no form in JSON, or is too large, is told as a text about it; nil is null. Frames are not changed. nil for frames
// that say nothing of what is sent: hello and credit.
NSDictionary shownFrame(const PassedFrame& passed);

}  // namespace velto::ctl
