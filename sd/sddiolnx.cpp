// Block files: whole blocks of 8192 bytes, at once or as requests that are collected later.

#include <kemsd/file.h>

KEM_FUNC_M KemSdDirectIOFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFilePath)
{
    return KemSdFileRemove(pSdCtx, pszFilePath);
}
