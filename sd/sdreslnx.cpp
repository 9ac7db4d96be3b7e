// Resource strings, which this platform does not have.

#include <kemsd/os.h>
