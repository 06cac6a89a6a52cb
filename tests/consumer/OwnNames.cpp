// A program that has names of its own where the headers have theirs.

#define VELTO_NO_GLOBAL_NAMES

struct Class {
  int pupils = 0;
};
enum { nil = 7 };

#include <VeltoIPC/VeltoIPC.h>
#include <VeltoIPC/platform/foundation/Box.h>
#include <VeltoIPC/platform/logging/VeltoLogging.h>
#include <VeltoIPC/platform/xpc/NSXPCConnection.h>
#include <VeltoIPC/platform/xpc/NSXPCInterface.h>
#include <VeltoIPC/platform/xpc/NSXPCListener.h>
#include <VeltoIPC/platform/xpc/NSXPCListenerEndpoint.h>

class Point : public NSObject {
 public:
  Point() = default;
  static velto::Class classObject() {
    static const velto::Class& made = *new velto::Class(velto::Class::define("Point", NSObject::classObject()));
    return made;
  }
};

int pupilsOf(const Class& aClass, const NSObject& object);
int pupilsOf(const Class& aClass, const NSObject& object) {
  const velto::Class kind = object == velto::nil ? velto::Class() : object.getClass();
  return kind.isSubclassOfClass(Point::classObject()) || object.is<Point>() ? aClass.pupils : nil;
}
