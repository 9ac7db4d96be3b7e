/* A module for sqlhost is a shared object with one function, which is called for every new connection, on the thread
 * that will use it, and registers with SQLite what the module adds. */
#ifndef SQLHOSTMODULE_H
#define SQLHOSTMODULE_H

#include <kemsd/context.h>
#include <sqlite3.h>

KEM_EXTERN_C_BEGIN

/* Null: all went well. Anything else is the reason why not, a text that stays: the connection is refused, and the user
 * sees it. `context` is the thread's, for calls of kemsd while the connection stands. The module is unloaded when the
 * last connection has been closed, so it leaves nothing behind elsewhere. */
KEM_API const char* sqlhostRegister(sqlite3* connection, KEM_PSDCTX_T context);

KEM_EXTERN_C_END

#endif
