// The text of a process's status file.
#pragma once

#include <kemsd/os.h>

#include <cstdio>

namespace sd::procstatus {

// Which line this is, by its key, the text before the colon.
PROC_STATUS keyOf(const char* line);

// Takes the figures that the file has; the others stay as they are.
void read(FILE* file, KemProcSysInfo& info);

} // namespace sd::procstatus
