#pragma once

#include <string>

#include "platform/foundation/Class.h"

namespace velto {

// Makes a class of the platform's own whose objects are told by their kind alone, and then taken for the one body that
// belongs to it. So no other class may be below it (see Class::define()).
Class defineBuiltIn(std::string name, const Class& superclass);

}  // namespace velto
