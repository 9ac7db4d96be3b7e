// The whole resource record.

#include <kemsd/os.h>
