// Segments and the chunk exchange.

#include <kemsd/ipc.h>
