// Mutexes, critical sections, events and counting semaphores.

#include <kemsd/sync.h>
