// Memory stacks: items carved one behind the other out of large blocks.

#include <kemsd/memory.h>
