/* crash(how): ends the server, in the ways in which programs end themselves. */
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <kemsd/memory.h>
#include <kemsd/os.h>

#include "modules/sqlhostmodule.h"

static volatile int* volatile nowhere = (volatile int*)8;
static volatile int zero;
static int callers;

static void fault(void) { *nowhere = 1; }

static int overflow(volatile char* outer)
{
    volatile char frame[2048];
    frame[0] = outer[0];
    return overflow(frame) + frame[0];
}

/* A page of a mapping behind the end of its file. */
static void readBehindTheEnd(void)
{
    const int file = memfd_create("crash", MFD_CLOEXEC);
    const char* const page = mmap(0, 4096, PROT_READ, MAP_SHARED, file, 0);
    zero = *(const volatile char*)page;
}

/* Each waits for the other, so that both fault at about the same time. */
static void faultWithAnother(void)
{
    __atomic_fetch_add(&callers, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&callers, __ATOMIC_SEQ_CST) < 2) sched_yield();
    fault();
}

/* What the thread holds of locks cannot be read: the handler itself faults. */
static void faultAgain(void)
{
    OV_THDCTX_T* const thread = KemSdVupUtilTlsGet();
    thread->pSyncCtx = (KEM_SYNCCTX_T*)nowhere;
    fault();
}

static void crash(sqlite3_context* call, int count, sqlite3_value** arguments)
{
    const char* const how = (const char*)sqlite3_value_text(arguments[0]);
    volatile char first = 1;
    (void)count;
    if (!strcmp(how, "fault")) fault();
    if (!strcmp(how, "stack")) sqlite3_result_int(call, overflow(&first));
    if (!strcmp(how, "file")) readBehindTheEnd();
    if (!strcmp(how, "instruction")) __builtin_trap();
    if (!strcmp(how, "division")) sqlite3_result_int(call, 100 / zero);
    if (!strcmp(how, "abort")) abort();
    if (!strcmp(how, "both")) faultWithAnother();
    if (!strcmp(how, "again")) faultAgain();
}

const char* sqlhostRegister(sqlite3* connection, KEM_PSDCTX_T context)
{
    (void)context;
    const int result = sqlite3_create_function_v2(connection, "crash", 1, SQLITE_UTF8, 0, crash, 0, 0, 0);
    return result == SQLITE_OK ? 0 : sqlite3_errstr(result);
}
