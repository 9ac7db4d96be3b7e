/* Integer widths, strings and handles that every kemsd header uses.
 *
 * The KEM_ names belong to the library's own calls, the OV_ names to the server-wide memory layer. Both name the same
 * widths. Counts of "blocks" are always in units of KEM_BLOCK_SIZE bytes; time-outs are milliseconds in a signed long,
 * -1 meaning without limit and 0 meaning do not wait, unless a call states a coarser unit. */
#ifndef KEMSD_TYPES_H
#define KEMSD_TYPES_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#define KEM_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define KEM_EXTERN_C_BEGIN extern "C" {
#define KEM_EXTERN_C_END }
#define KEM_STATIC_ASSERT(condition, text) static_assert(condition, text)
#define KEM_THREAD_LOCAL __thread
#else
#define KEM_EXTERN_C_BEGIN
#define KEM_EXTERN_C_END
#define KEM_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#define KEM_THREAD_LOCAL __thread
#endif

/* Bytes in one block of aligned, locked, mapped and direct-I/O memory. */
#define KEM_BLOCK_SIZE 8192

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef int KEM_INT_T, *KEM_PINT_T;
typedef int32_t KEM_LONG_T, *KEM_PLONG_T;
typedef uint32_t KEM_ULONG_T, *KEM_PULONG_T;
typedef uint32_t KEM_UINT_T, *KEM_PUINT_T;
typedef uint32_t KEM_BIT32_T, *KEM_PBIT32_T;
typedef uint16_t KEM_USHORT_T;
typedef int16_t KEM_SHORT_T;
typedef int64_t KEM_LONG64_T;
typedef uint64_t KEM_ULONGLONG_T, *KEM_PULONGLONG_T;
typedef int64_t KEM_OFF_T;
typedef size_t KEM_SIZE_T;
typedef uint8_t KEM_BOOL_T, *KEM_PBOOL_T;
typedef char* KEM_STR_T;
typedef uint8_t KEM_UCHAR_T, *KEM_PUCHAR_T;
typedef double KEM_DOUBLE_T, *KEM_PDOUBLE_T;
typedef void *KEM_PVOID_T, **KEM_PPVOID_T;
typedef time_t KEM_TIME_T, *KEM_PTIME_T;

/* 0 is success; see status.h for the catalogue. */
typedef int32_t KEM_STS_T;
/* The return type of a call that reports a status. */
typedef KEM_STS_T KEM_FUNC_M;
/* The operating system's error number (errno) that went with a status, or 0. */
typedef int KEM_OSRETCODE_T, *KEM_POSRETCODE_T;

/* A 64-bit word that is changed only atomically. */
typedef int64_t KEM_SDATOMIC_T;

/* An operating-system file descriptor; -1 is none. */
typedef int KEM_FILEHDL_T, *KEM_PFILEHDL_T;

/* The key_t of the system: under it processes find a System V object. */
typedef __key_t KEM_IPCKEY_T;

/* A thread's handle is a copy of its id; 0 is no thread. */
typedef pthread_t KEM_THDID_T, *KEM_PTHDID_T;
typedef pthread_t KEM_THDHDL_T, *KEM_PTHDHDL_T;
typedef pid_t KEM_PROCID_T, *KEM_PPROCID_T;
/* The fsid_t of the system; only its first half is ever written. */
typedef __fsid_t KEM_SESSID_T, *KEM_PSESSID_T;

typedef int32_t OV_LONG_T;
typedef uint32_t OV_ULONG_T;
typedef uint32_t OV_UINT_T;
typedef uint64_t OV_ULONGLONG_T;
typedef uint8_t OV_BOOL_T;
typedef uint8_t OV_BYTE_T;
typedef int32_t OV_STS_T;
typedef char* OV_STR_T;
typedef void* OV_PVOID_T;

#endif
