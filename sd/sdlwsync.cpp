// Lightweight and legacy spinlocks.

#include <kemsd/sync.h>
