// Semaphore sets shared between processes.

#include <kemsd/sync.h>
