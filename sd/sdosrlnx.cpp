// What the system says about the machine.

#include <kemsd/os.h>
