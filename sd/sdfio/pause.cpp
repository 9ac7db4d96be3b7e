// Write leases and the write pause.

#include <kemsd/file.h>
