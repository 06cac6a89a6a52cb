#pragma once

// Everything that an application needs.
#include "VeltoIPC/VeltoConnection.h"
#include "VeltoIPC/VeltoConstants.h"
#include "VeltoIPC/VeltoIPCDelegate.h"
#include "VeltoIPC/VeltoListener.h"
#include "platform/foundation/Foundation.h"
