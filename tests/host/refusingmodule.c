/* A module that takes so many connections and refuses all further ones. */
#include "modules/sqlhostmodule.h"

static int connections;

const char* sqlhostRegister(sqlite3* connection, KEM_PSDCTX_T context)
{
    (void)connection;
    (void)context;
    return __atomic_fetch_add(&connections, 1, __ATOMIC_RELAXED) < CONNECTIONS ? 0 : "it has enough";
}
