// Modules loaded at run time.

#include <kemsd/os.h>
