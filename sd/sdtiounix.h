// Keys as a terminal's descriptor delivers them.
#pragma once

#include <kemsd/os.h>

#include "sd/base/outcome.h"

namespace sd {

struct KeyRead {
    bool came;
    KEM_KBDINFO_T key; // both fields 0 when none came
    Outcome outcome;   // SDSTS_CONSOLE_FAILED when a read failed
};

// Reads a key as the descriptor is set up: it waits unless the descriptor does not.
KeyRead readKey(int fd);

} // namespace sd
