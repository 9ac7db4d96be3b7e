// The search of one directory for the names that a pattern matches, collections of paths and lists of found files.

#include <kemsd/file.h>
