// A program that has a macro where the headers have a name, and uses the rest of them as ever.

#define nil 7

#include <VeltoIPC/VeltoIPC.h>
#include <VeltoIPC/platform/foundation/JSON.h>
#include <VeltoIPC/platform/xpc/NSXPCConnection.h>

static_assert(nil == 7);

int pupilsOf(const NSObject& object);
int pupilsOf(const NSObject& object) {
  const Class kind = object.getClass();
  return object == nullptr || kind.isSubclassOfClass(NSString::classObject()) ? 0 : nil;
}

#undef nil
#define nil() 8

#include <VeltoIPC/platform/xpc/NSXPCListener.h>

static_assert(nil() == 8);
