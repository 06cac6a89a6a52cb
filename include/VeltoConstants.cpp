// The exported data. The time-out constant is a variable on purpose: programs may set it, and every send reads it
// afresh.
#include "VeltoIPC/VeltoConstants.h"

double VKT_IPC_TIME_FOREVER = -1.0;

const double VeltoIPCVersionNumber = 0.0;
// Found in a binary by its first four characters.
const unsigned char VeltoIPCVersionString[] = "@(#)PROGRAM:VeltoIPC  PROJECT:VeltoIPC-\n";
