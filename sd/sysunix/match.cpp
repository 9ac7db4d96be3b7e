// The server layer's own search step.

#include <kemsd/file.h>
