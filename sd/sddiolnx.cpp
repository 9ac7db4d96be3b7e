// Block files: whole blocks of 8192 bytes, at once or as requests that are collected later.

#include <kemsd/file.h>
