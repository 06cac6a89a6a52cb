// A file descriptor is one descriptor, and travels as this. What a peer sends as one may be of any kind: whoever admits
// the class looks at what has come.

#include "platform/xpc/NSFileDescriptor.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/wire/DescriptorCoding.h"

namespace {

using velto::system::Descriptor;
using velto::system::SharedDescriptor;
using velto::system::systemCalls;

class FileDescriptorBody final : public velto::ObjectBody {
 public:
  explicit FileDescriptorBody(SharedDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  const SharedDescriptor& descriptor() const noexcept { return descriptor_; }

  const velto::ClassBody& classBody() const override { return *NSFileDescriptor::classObject().classBody(); }
  bool isEqual(const velto::ObjectBody& other, velto::WalkBound&) const override {
    const auto* value = dynamic_cast<const FileDescriptorBody*>(&other);
    return value != nullptr && value->descriptor_ == descriptor_;
  }
  std::size_t hash() const override { return std::hash<SharedDescriptor>()(descriptor_); }
  void describe(std::string& out, velto::WalkBound&) const override {
    out += "<NSFileDescriptor: " + std::to_string(descriptor_->get()) + ">";
  }

 private:
  const SharedDescriptor descriptor_;
};

const SharedDescriptor& ownedBy(const NSFileDescriptor& value) {
  return static_cast<const FileDescriptorBody*>(value.body())->descriptor();
}

void tellFailure(int descriptor, int reason, NSError* error) {
  if (error == nullptr) return;
  const std::string text = "descriptor " + std::to_string(descriptor) + " cannot be had: " + std::strerror(reason);
  *error = NSError::errorWithDomain("org.velto.platform", reason, {{NSLocalizedDescriptionKey, text}});
}

NSObject makeFileDescriptor(const std::vector<SharedDescriptor>& descriptors, std::string& reason) {
  if (descriptors.size() == 1 && descriptors[0]) return NSFileDescriptor::fileDescriptorWithDescriptor(descriptors[0]);
  reason = "holds a file descriptor of " + std::to_string(descriptors.size()) + " descriptors, 1 is due";
  return nil;
}

Class defineFileDescriptorClass() {
  const Class made = velto::defineBuiltIn("NSFileDescriptor", NSObject::classObject());
  velto::wire::DescriptorCoding coding;
  coding.descriptors = [](const NSObject& object) {
    return std::vector<SharedDescriptor>{ownedBy(object.as<NSFileDescriptor>())};
  };
  coding.make = makeFileDescriptor;
  coding.most = 1;
  coding.mayBeKey = false;
  velto::wire::registerDescriptorCoding(made, std::move(coding));
  return made;
}

}  // namespace

Class NSFileDescriptor::classObject() {
  static const Class& made = *new Class(defineFileDescriptorClass());
  return made;
}

NSFileDescriptor NSFileDescriptor::fileDescriptorTaking(int takenDescriptor, NSError* error) {
  // Looked at before it is owned: the number of one that is not open may be somebody else's a moment later.
  if (systemCalls().closeOnExec(takenDescriptor) != 0) {
    tellFailure(takenDescriptor, errno, error);
    return nil;
  }
  Descriptor owned(takenDescriptor);
  return fileDescriptorWithDescriptor(std::make_shared<const Descriptor>(std::move(owned)));
}

NSFileDescriptor NSFileDescriptor::fileDescriptorDuplicating(int borrowedDescriptor, NSError* error) {
  Descriptor owned(systemCalls().duplicate(borrowedDescriptor));
  if (owned) return fileDescriptorWithDescriptor(std::make_shared<const Descriptor>(std::move(owned)));
  tellFailure(borrowedDescriptor, errno, error);
  return nil;
}

NSFileDescriptor NSFileDescriptor::fileDescriptorWithDescriptor(velto::system::SharedDescriptor descriptor) {
  return NSFileDescriptor(new FileDescriptorBody(std::move(descriptor)));
}

int NSFileDescriptor::descriptor() const noexcept {
  return isNil() ? -1 : ownedBy(*this)->get();
}

int NSFileDescriptor::duplicate(NSError* error) const {
  const int made = systemCalls().duplicate(descriptor());
  if (made < 0) tellFailure(descriptor(), errno, error);
  return made;
}
