// Single keys from standard input.

#include <kemsd/os.h>
