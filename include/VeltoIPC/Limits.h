#pragma once

// Every limit, with its unit, its value and its reason.
#include "platform/xpc/contract/Limits.h"
