// The module's version data.

#include <kemsd/context.h>

#define KEMSD_TEXT_(x) #x
#define KEMSD_TEXT(x) KEMSD_TEXT_(x)

constinit const char* const pszModuleVer = "KEM " KEMSD_VERSION " B" KEMSD_TEXT(KEMSD_BUILD);
constinit const KEM_USHORT_T usBuildVer = KEMSD_BUILD;
