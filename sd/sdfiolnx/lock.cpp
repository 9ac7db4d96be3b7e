// Whole-file locks, and who holds or uses a file.

#include <kemsd/file.h>
