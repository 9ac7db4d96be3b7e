// Files read and written through one shared mapping, or through their descriptors by the same calls.

#include <kemsd/file.h>
