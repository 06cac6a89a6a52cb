// Tables are short: a search from the front beats anything cleverer.

#include "platform/xpc/interface/Protocol.h"

#include <algorithm>

namespace velto::xpc {

Protocol::Protocol(std::string name, std::vector<Method> methods)
    : hasAhead_(std::ranges::any_of(methods, [](const Method& each) { return each.way >= Way::prompt; })),
      name_(std::move(name)),
      methods_(std::move(methods)) {}

const Method* Protocol::methodForSelector(std::string_view selector) const noexcept {
  const auto found = std::ranges::find(methods_, selector, &Method::selector);
  return found != methods_.end() ? &*found : nullptr;
}

const Method* Protocol::methodForMember(const void* member) const noexcept {
  const auto found = std::ranges::find(methods_, member, &Method::member);
  return found != methods_.end() ? &*found : nullptr;
}

}  // namespace velto::xpc
