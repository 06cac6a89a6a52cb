// What the fuzzers of values share: a class of a user's own, and a walk that is written against the documentation and
// not against the decoder.

#include "fuzz/support/Values.h"

#include <memory>

#include "fuzz/support/FakeKernel.h"
#include "platform/foundation/Walk.h"
#include "platform/logging/VeltoLogging.h"

namespace velto::fuzzing {
namespace {

class BoxBody final : public ObjectBody {
 public:
  explicit BoxBody(NSObject contents) : contents_(std::move(contents)) {}

  const NSObject& contents() const noexcept { return contents_; }
  const ClassBody& classBody() const override { return *Box::classObject().classBody(); }
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override {
    const auto* box = bodyAs<BoxBody>(&other);
    const ComparedLevel level(bound);
    return box != nullptr && isEqualWithin(bound, contents_, box->contents_);
  }
  std::size_t hash() const override { return 17; }
  void describe(std::string& out, WalkBound& bound) const override {
    out += "box of ";
    describeWithin(bound, contents_, out);
  }

 private:
  const NSObject contents_;
};

Class defineTravelling(const char* name, const Class& superclass) {
  const Class made = Class::define(name, superclass);
  registerClassCoding(made, {[](const NSObject& object) { return object.as<Box>().contents(); },
                             [](const NSObject& contents) -> NSObject { return Box::holding(contents); }});
  return made;
}

}  // namespace

Class Box::classObject() {
  static const Class& made = *new Class(defineTravelling("FuzzBox", NSObject::classObject()));
  return made;
}

Box Box::holding(const NSObject& contents) {
  return Box(new BoxBody(contents));
}

NSObject Box::contents() const {
  const auto* box = bodyAs<BoxBody>(body());
  return box != nullptr ? box->contents() : NSObject();
}

Class SmallBox::classObject() {
  // Its objects decode to those of the class above: the decoder must refuse them, whatever the set admits.
  static const Class& made = *new Class(defineTravelling("FuzzSmallBox", Box::classObject()));
  return made;
}

const std::vector<Class>& travellingClasses() {
  static const std::vector<Class>& all =
      *new std::vector<Class>{NSString::classObject(),        NSNumber::classObject(),
                              NSDictionary::classObject(),    NSArray::classObject(),
                              NSData::classObject(),          NSDate::classObject(),
                              NSNull::classObject(),          NSSet::classObject(),
                              NSUUID::classObject(),          NSURL::classObject(),
                              NSError::classObject(),         Box::classObject(),
                              VKTLogAnchor::classObject(),    NSXPCListenerEndpoint::classObject(),
                              SmallBox::classObject(),        NSObject::classObject(),
                              NSFileDescriptor::classObject()};
  return all;
}

const wire::ClassSet& everything() {
  static const wire::ClassSet& all = *new wire::ClassSet(
      NSSet::setWithObjects(std::vector<NSObject>(travellingClasses().begin(), travellingClasses().end())));
  return all;
}

namespace {

system::SharedDescriptor owned(ObjectKind kind) {
  return std::make_shared<const system::Descriptor>(
      system::Descriptor(FakeKernel::shared().open(std::make_shared<KernelObject>(kind))));
}

}  // namespace

NSFileDescriptor newFileDescriptor() {
  return NSFileDescriptor::fileDescriptorWithDescriptor(owned(ObjectKind::readEnd));
}

NSXPCListenerEndpoint newEndpoint() {
  return NSXPCListenerEndpoint::endpointWithDescriptors(owned(ObjectKind::handle), owned(ObjectKind::readEnd));
}

void walk(const NSObject& value, const std::function<void(const NSObject&)>& visit) {
  if (value.isNil()) return;
  visit(value);
  if (const auto dictionary = value.as<NSDictionary>()) {
    const NSArray values = dictionary.allValues();
    for (const NSObject& key : dictionary) walk(key, visit);
    for (const NSObject& each : values) walk(each, visit);
  }
  if (const auto array = value.as<NSArray>()) {
    for (const NSObject& each : array) walk(each, visit);
  }
  if (const auto set = value.as<NSSet>()) {
    for (const NSObject& each : set) walk(each, visit);
  }
  if (const auto error = value.as<NSError>()) {
    const NSArray values = error.userInfo().allValues();
    for (const NSObject& key : error.userInfo()) walk(key, visit);
    for (const NSObject& each : values) walk(each, visit);
  }
  if (const auto box = value.as<Box>(); !box.isNil()) walk(box.contents(), visit);
  if (const auto anchor = value.as<VKTLogAnchor>()) {
    walk(NSDictionary{{"file", anchor.file()}, {"line", anchor.line()}, {"function", anchor.function()}}, visit);
  }
}

wire::Frame frameWith(Bytes body, std::size_t descriptors, unsigned pattern) {
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body.append(body);
  for (std::size_t index = 0; index < descriptors; ++index) {
    const ObjectKind ofEndpoint = index % 2 == 0 ? ObjectKind::handle : ObjectKind::readEnd;
    const bool isWrong = (pattern >> (index % 8) & 1u) != 0;
    const auto object = std::make_shared<KernelObject>(isWrong ? ObjectKind::file : ofEndpoint);
    frame.descriptors.push_back(
        std::make_shared<const system::Descriptor>(system::Descriptor(FakeKernel::shared().open(object))));
  }
  return frame;
}

}  // namespace velto::fuzzing
