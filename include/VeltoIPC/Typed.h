#pragma once

// VELTO_FIELDS and VELTO_NAMES: a struct or an enumeration that describes itself travels as a value. For headers that
// declare messages; VeltoIPC.h has it, too.
#include "platform/foundation/Fields.h"
