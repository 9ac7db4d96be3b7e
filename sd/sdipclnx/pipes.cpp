// Anonymous and named pipes.

#include <kemsd/ipc.h>
