// Keys, flags, attaching and removing shared memory.

#include <kemsd/ipc.h>
