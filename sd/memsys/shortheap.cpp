// Short-term heaps: the unlocked heaps of one thread for one unit of work.

#include <kemsd/memory.h>
