#pragma once

// Everything that an application needs, in either vocabulary: docs/guide.md says when to use which.
#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "VeltoIPC/Task.h"
#include "VeltoIPC/Typed.h"
#include "VeltoIPC/VeltoConnection.h"
#include "VeltoIPC/VeltoConstants.h"
#include "VeltoIPC/VeltoIPCDelegate.h"
#include "VeltoIPC/VeltoListener.h"
#include "platform/foundation/Foundation.h"
