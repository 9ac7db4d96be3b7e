/* The whole interface. Each header below also stands alone. */
#ifndef KEMSD_KEMSD_H
#define KEMSD_KEMSD_H

#include <kemsd/context.h>
#include <kemsd/file.h>
#include <kemsd/ipc.h>
#include <kemsd/memory.h>
#include <kemsd/os.h>
#include <kemsd/status.h>
#include <kemsd/sync.h>
#include <kemsd/types.h>

#endif
