// Tables are short: a search from the front beats anything cleverer.

#include "platform/xpc/interface/Protocol.h"

#include <algorithm>

namespace velto::xpc {

const Method* Protocol::methodForSelector(std::string_view selector) const noexcept {
  const auto found = std::ranges::find(methods_, selector, &Method::selector);
  return found != methods_.end() ? &*found : nullptr;
}

const Method* Protocol::methodForMember(const void* member) const noexcept {
  const auto found = std::ranges::find(methods_, member, &Method::member);
  return found != methods_.end() ? &*found : nullptr;
}

}  // namespace velto::xpc
