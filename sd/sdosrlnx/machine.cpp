// What the system says about the machine. Each call asks anew; nothing is kept, no lock is taken.

#include <unistd.h>

#include <kemsd/os.h>

KEM_ULONG_T KemSdCPUCountGet(void)
{
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<KEM_ULONG_T>(online) : 1;
}
