// Standard and counting events.

#include <kemsd/sync.h>
