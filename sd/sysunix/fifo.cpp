// The server-layer calls on FIFOs.

#include <kemsd/ipc.h>
