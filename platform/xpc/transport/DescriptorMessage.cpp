// Bytes and descriptors in one message. There is always room for as many descriptors as the kernel lets one message
// have, so that none can be cut off by the size of the control buffer; what is more than allowed is seen, and closed.

#include "platform/xpc/transport/DescriptorMessage.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <sys/socket.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constexpr std::size_t kKernelMaximumDescriptors = 253;

template <std::size_t Descriptors>
struct alignas(cmsghdr) ControlBuffer {
  std::array<char, CMSG_SPACE(Descriptors * sizeof(int))> bytes;
};

void takeDescriptors(const cmsghdr& header, std::vector<system::SharedDescriptor>& descriptors) {
  if (header.cmsg_level != SOL_SOCKET || header.cmsg_type != SCM_RIGHTS) return;
  const std::size_t count = (header.cmsg_len - CMSG_LEN(0)) / sizeof(int);
  for (std::size_t index = 0; index < count; ++index) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(&header) + index * sizeof(int), sizeof(int));
    descriptors.push_back(std::make_shared<const system::Descriptor>(system::Descriptor(descriptor)));
  }
}

}  // namespace

Received receiveWithDescriptors(int borrowedSocket, std::span<std::uint8_t> room) {
  ControlBuffer<kKernelMaximumDescriptors> control;
  iovec part{room.data(), room.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();

  Received received;
  const ssize_t count = system::systemCalls().receiveMessage(borrowedSocket, message);
  if (count < 0) {
    received.error = errno;
    return received;
  }
  received.count = static_cast<std::size_t>(count);
  received.truncated = (message.msg_flags & MSG_CTRUNC) != 0;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    takeDescriptors(*header, received.descriptors);
  }
  return received;
}

ssize_t sendWithDescriptors(int borrowedSocket, std::span<iovec> parts,
                            std::span<const system::SharedDescriptor> descriptors) {
  ControlBuffer<limits::kMaximumDescriptors> control{};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  if (!descriptors.empty()) {
    message.msg_control = control.bytes.data();
    message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    for (std::size_t index = 0; index < descriptors.size(); ++index) {
      const int descriptor = descriptors[index]->get();
      std::memcpy(CMSG_DATA(header) + index * sizeof(int), &descriptor, sizeof(int));
    }
  }
  return system::systemCalls().sendMessage(borrowedSocket, message);
}

}  // namespace velto::transport
