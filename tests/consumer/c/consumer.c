/* Allocates, locks, writes and reads a file, and asks the clock: one call of every subsystem, from C. */
#include <fcntl.h>
#include <kemsd/kemsd.h>
#include <stdio.h>
#include <string.h>

static int failed(const char* what, KEM_PSDCTX_T ctx)
{
    fprintf(stderr, "%s: status %d, error number %d\n", what, ctx ? ctx->sts : 0, ctx ? ctx->osRetCode : 0);
    return 1;
}

int main(int argc, char** argv)
{
    KEM_PSDCTX_T ctx;
    KEM_PSPINLOCK_T lock;
    KEM_THDID_T self;
    KEM_FILEHDL_T file;
    KEM_INT_T count;
    KEM_TIME_T now;
    void* block;
    char text[6] = "";

    if (argc != 2) return 2;
    if (KemSdInit(&ctx, 0) != 0) return failed("KemSdInit", NULL);

    if (KemSdMemAlloc(ctx, NULL, 100, &block, __FILE__, __LINE__) != 0) return failed("KemSdMemAlloc", ctx);
    memset(block, 1, 100);
    if (KemSdMemFree(ctx, block, __FILE__, __LINE__) != 0) return failed("KemSdMemFree", ctx);

    if (KemSdThreadIdGet(ctx, &self) != 0) return failed("KemSdThreadIdGet", ctx);
    lock = KemSdSpinlockCreate(ctx, __FILE__, __LINE__);
    if (!lock) return failed("KemSdSpinlockCreate", ctx);
    KemSdSpinlockAcquire(lock, self);
    if (!KemSdSpinlockOwner(lock, self)) return failed("KemSdSpinlockOwner", ctx);
    KemSdSpinlockRelease(lock);
    KemSdSpinlockDestroy(ctx, lock, __FILE__, __LINE__);

    if (KemSdFileOpen(ctx, argv[1], O_RDWR | O_CREAT | O_TRUNC, 0600, &file) != 0) return failed("KemSdFileOpen", ctx);
    if (KemSdFileWrite(ctx, file, "kemsd", 5, &count) != 0 || count != 5) return failed("KemSdFileWrite", ctx);
    if (KemSdFileLSeek(ctx, file, 0, SEEK_SET, NULL) != 0) return failed("KemSdFileLSeek", ctx);
    if (KemSdFileRead(ctx, file, text, 5, &count) != 0 || strcmp(text, "kemsd") != 0)
        return failed("KemSdFileRead", ctx);
    if (KemSdFileClose(ctx, file) != 0) return failed("KemSdFileClose", ctx);

    if (KemSdTime(ctx, &now) != 0) return failed("KemSdTime", ctx);
    printf("%s from C: all well at %ld\n", pszModuleVer, (long)now);
    return KemSdTerm(ctx);
}
