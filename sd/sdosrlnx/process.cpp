// The limits, memory and identity of this process.

#include <kemsd/os.h>
