// An endpoint is two descriptors, and travels as these. What a peer sends as one is looked at before it becomes one: an
// O_PATH descriptor of a socket that belongs to this user, and the reading end of a pipe.

#include "platform/xpc/NSXPCListenerEndpoint.h"

#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/HangUpWatch.h"
#include "platform/xpc/wire/DescriptorCoding.h"

namespace {

using velto::system::SharedDescriptor;
using velto::system::systemCalls;

class EndpointBody final : public velto::ObjectBody {
 public:
  EndpointBody(SharedDescriptor socket, SharedDescriptor hangUp)
      : socket_(std::move(socket)), hangUp_(std::move(hangUp)), identity_(askForIdentity()) {}

  const SharedDescriptor& socket() const noexcept { return socket_; }
  const SharedDescriptor& hangUp() const noexcept { return hangUp_; }

  const velto::ClassBody& classBody() const override { return *NSXPCListenerEndpoint::classObject().classBody(); }
  bool isEqual(const velto::ObjectBody& other, velto::WalkBound&) const override {
    const auto* endpoint = dynamic_cast<const EndpointBody*>(&other);
    if (endpoint == nullptr) return false;
    return endpoint->socket_ == socket_ || (identity() != kUnknown && endpoint->identity() == identity());
  }
  std::size_t hash() const override { return std::hash<ino_t>()(identity().second); }

 private:
  using Identity = std::pair<dev_t, ino_t>;
  static constexpr Identity kUnknown{0, 0};

  Identity askForIdentity() const {
    struct stat status {};
    return systemCalls().status(socket_->get(), status) == 0 ? Identity{status.st_dev, status.st_ino} : kUnknown;
  }
  // If the kernel would not say which socket it is, it is asked again.
  Identity identity() const { return identity_ != kUnknown ? identity_ : askForIdentity(); }

  const SharedDescriptor socket_;
  const SharedDescriptor hangUp_;
  const Identity identity_;
};

const EndpointBody* bodyOf(const NSXPCListenerEndpoint& endpoint) {
  return static_cast<const EndpointBody*>(endpoint.body());
}

bool isSocketHandle(int descriptor, std::string& reason) {
  struct stat status {};
  const int flags = systemCalls().statusFlags(descriptor);
  if (flags < 0 || systemCalls().status(descriptor, status) != 0 || !S_ISSOCK(status.st_mode)) {
    reason = "holds an endpoint whose descriptor is not of a socket";
  } else if ((flags & O_PATH) == 0) {
    reason = "holds an endpoint whose socket is open: an O_PATH descriptor is due";
  } else if (status.st_uid != ::geteuid()) {
    reason = "holds an endpoint whose socket belongs to user " + std::to_string(status.st_uid) +
             ", this process runs as user " + std::to_string(::geteuid());
  } else {
    return true;
  }
  return false;
}

bool isReadingEnd(int descriptor, std::string& reason) {
  struct stat status {};
  const int flags = systemCalls().statusFlags(descriptor);
  if (flags >= 0 && systemCalls().status(descriptor, status) == 0 && S_ISFIFO(status.st_mode) &&
      (flags & (O_ACCMODE | O_PATH)) == O_RDONLY) {
    return true;
  }
  reason = "holds an endpoint whose second descriptor is not the reading end of a pipe";
  return false;
}

NSObject makeEndpoint(const std::vector<SharedDescriptor>& descriptors, std::string& reason) {
  if (descriptors.size() != 2) {
    reason = "holds an endpoint of " + std::to_string(descriptors.size()) + " descriptors, 2 are due";
    return nil;
  }
  if (!isSocketHandle(descriptors[0]->get(), reason) || !isReadingEnd(descriptors[1]->get(), reason)) return nil;
  return NSXPCListenerEndpoint::endpointWithDescriptors(descriptors[0], descriptors[1]);
}

Class defineEndpointClass() {
  const Class made = velto::defineBuiltIn("NSXPCListenerEndpoint", NSObject::classObject());
  velto::wire::registerDescriptorCoding(made,
                                        {[](const NSObject& object) {
                                           const auto endpoint = object.as<NSXPCListenerEndpoint>();
                                           return std::vector<SharedDescriptor>{endpoint.socket(), endpoint.hangUp()};
                                         },
                                         makeEndpoint, 2});
  return made;
}

}  // namespace

class NSXPCListenerEndpoint::Watch {
 public:
  explicit Watch(std::shared_ptr<velto::transport::HangUpWatch> hangUp) : hangUp_(std::move(hangUp)) {}

 private:
  const std::shared_ptr<velto::transport::HangUpWatch> hangUp_;
};

Class NSXPCListenerEndpoint::classObject() {
  static const Class& made = *new Class(defineEndpointClass());
  return made;
}

NSXPCListenerEndpoint NSXPCListenerEndpoint::endpointWithDescriptors(velto::system::SharedDescriptor socket,
                                                                     velto::system::SharedDescriptor hangUp) {
  return NSXPCListenerEndpoint(new EndpointBody(std::move(socket), std::move(hangUp)));
}

velto::system::SharedDescriptor NSXPCListenerEndpoint::socket() const {
  return isNil() ? nullptr : bodyOf(*this)->socket();
}

velto::system::SharedDescriptor NSXPCListenerEndpoint::hangUp() const {
  return isNil() ? nullptr : bodyOf(*this)->hangUp();
}

// There is never anything to be read but the hang-up.
bool NSXPCListenerEndpoint::isGone() const {
  return isNil() || systemCalls().isReadable(hangUp()->get()) > 0;
}

std::shared_ptr<NSXPCListenerEndpoint::Watch> NSXPCListenerEndpoint::watch(std::function<void()> handler) const {
  if (isNil()) return nullptr;
  auto watch = velto::transport::HangUpWatch::make(hangUp()->get(), std::move(handler));
  return watch ? std::make_shared<Watch>(std::move(watch)) : nullptr;
}
