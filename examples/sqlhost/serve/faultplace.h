// Where in the program a thread was when a signal came: the machine's registers, and the file that was mapped there.
#pragma once

#include "serve/reporttext.h"

namespace sqlhost {

struct MachinePlace {
    uint64_t instruction, stack;
};
// `machine`: what the handler of a signal is given.
MachinePlace machinePlace(const void* machine);

// "PATH at 0x1139", with the place in the file as tools for symbols take it; "no file's" where no file is mapped. In
// memory of the crash-time reserve.
void addPlace(ReportText& report, uint64_t address);

} // namespace sqlhost
