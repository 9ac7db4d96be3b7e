// The queued reader-writer lock.

#include <kemsd/sync.h>
