#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/foundation/Foundation.h"

namespace velto::testing {

// An object of a class that the test chooses, with a description that must not be seen. It can act when its class is
// asked for.
class TestObject final : public NSObject {
 public:
  static NSObject ofClass(const Class& aClass, std::function<void()> whenAsked = {}) {
    return TestObject(new Body(aClass, std::move(whenAsked)));
  }

 private:
  class Body final : public ObjectBody {
   public:
    Body(const Class& aClass, std::function<void()> whenAsked)
        : class_(*aClass.classBody()), whenAsked_(std::move(whenAsked)) {}
    const ClassBody& classBody() const override {
      if (whenAsked_) whenAsked_();
      return class_;
    }
    void describe(std::string& out, WalkBound&) const override { out += "private contents"; }

   private:
    const ClassBody& class_;
    const std::function<void()> whenAsked_;
  };

  explicit TestObject(ObjectBody* body) : NSObject(body) {}
};

}  // namespace velto::testing
