// The console.

#include <kemsd/os.h>
