// Directories made, changed and removed with all their contents; links, temporary files and path texts.

#include <kemsd/file.h>
