// Drives: the entries of the mount table.

#include <kemsd/os.h>
