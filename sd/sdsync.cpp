// Not built yet.
#include <kemsd/sync.h>

constinit OV_BOOL_T bSdHardwareAcceleration = FALSE;
