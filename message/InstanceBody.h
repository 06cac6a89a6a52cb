#pragma once

#include "platform/foundation/Class.h"
#include "platform/foundation/ObjectBody.h"

namespace velto {

// What makes a VeltoConnection or VeltoListener an object like any other: it knows its class and is equal to itself
// only. Their state lives in the C++ objects.
class InstanceBody final : public ObjectBody {
 public:
  explicit InstanceBody(const Class& aClass) : class_(*aClass.classBody()) {}
  const ClassBody& classBody() const override { return class_; }

 private:
  const ClassBody& class_;
};

}  // namespace velto
