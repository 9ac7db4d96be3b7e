// Threads and buffers on the nodes of a machine.

#include <kemsd/memory.h>
