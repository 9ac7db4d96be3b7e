// Clocks: the current time, ticks, broken-down local time and its text, and a millisecond sleep. Each call is one
// system or C library call with its outcome stored in the caller's context; nothing is shared between threads.

#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <kemsd/memory.h>
#include <kemsd/os.h>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;

constexpr uint32_t kTextCapacity = 64; // asctime_r and ctime_r write 26 bytes for every year they accept

constexpr uint32_t timeFromDos(uint32_t dosTime, uint32_t dosDate)
{
    // Deliberate: the fields are used unshifted and the month not at all; all arithmetic wraps at 32 bits.
    const uint32_t day = dosDate & 0x1F;
    const uint32_t years = dosDate & 0xFE00;
    const uint32_t leapYears = (years >> 2) - 492;
    const uint32_t days = day + 366 * leapYears - 1 + 365 * (years - leapYears);
    const uint32_t hours = (dosTime & 0xF800) + 24 * days;
    const uint32_t minutes = 60 * hours + (dosTime & 0x7E0);
    return 60 * minutes + 2 * (dosTime & 0x1F) + 2298589440U;
}
static_assert(timeFromDos(0, 0) == 2255994240U);

// The seven fields both ways. The record is unsigned 16-bit, so a year before 1900 wraps.
void copyFields(KEM_TIMERECORD_T& to, const tm& from)
{
    to.Seconds = static_cast<KEM_USHORT_T>(from.tm_sec);
    to.Minutes = static_cast<KEM_USHORT_T>(from.tm_min);
    to.Hours = static_cast<KEM_USHORT_T>(from.tm_hour);
    to.Day = static_cast<KEM_USHORT_T>(from.tm_mday);
    to.Month = static_cast<KEM_USHORT_T>(from.tm_mon);
    to.Year = static_cast<KEM_USHORT_T>(from.tm_year);
    to.Weekday = static_cast<KEM_USHORT_T>(from.tm_wday);
}

tm brokenDown(const KEM_TIMERECORD_T& from)
{
    tm to{};
    to.tm_sec = from.Seconds;
    to.tm_min = from.Minutes;
    to.tm_hour = from.Hours;
    to.tm_mday = from.Day;
    to.tm_mon = from.Month;
    to.tm_year = from.Year;
    to.tm_wday = from.Weekday;
    return to;
}

// Overwrites white space at the end with zero bytes, never touching the first character.
void trimEnd(char* text)
{
    for (size_t i = strlen(text); i > 1 && isspace(static_cast<unsigned char>(text[i - 1])); --i) text[i - 1] = 0;
}

} // namespace

KEM_FUNC_M KemSdTime(KEM_PSDCTX_T pSdCtx, KEM_PTIME_T pTimeCur)
{
    if (!pTimeCur) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pTimeCur = time(nullptr);
    return finish(pSdCtx, *pTimeCur == -1 ? failErrno(SDSTS_TIME_FAILED) : ok());
}

KEM_FUNC_M KemSdClock(KEM_PSDCTX_T pSdCtx, clock_t* pClockTicks)
{
    if (!pClockTicks) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    tms unused;
    *pClockTicks = times(&unused);
    return finish(pSdCtx, *pClockTicks == -1 ? failErrno(SDSTS_CLOCK_FAILED) : ok());
}

KEM_FUNC_M KemSdTimeElapsedOS(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pTimeElapsed)
{
    if (!pTimeElapsed) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pTimeElapsed = 0;
    tms unused;
    const clock_t ticks = times(&unused);
    if (ticks == -1) return finish(pSdCtx, failErrno(SDSTS_ELAPSED_FAILED));
    const auto tickRate = static_cast<KEM_LONG_T>(sysconf(_SC_CLK_TCK));
    if (tickRate == 0 || tickRate == -1) return finish(pSdCtx, failErrno(SDSTS_ELAPSED_FAILED));
    *pTimeElapsed = static_cast<KEM_ULONG_T>(ticks / tickRate);
    return finish(pSdCtx, ok());
}

void KemSdGetUtcTimestamp(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_PUTC_TIMESTAMP_T pTimestamp)
{
    timeval now;
    if (!pTimestamp) {
        finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    } else if (gettimeofday(&now, nullptr) != 0) {
        finish(pSdCtx, failErrno(SDSTS_TIMEOFDAY_FAILED));
    } else {
        pTimestamp->lSeconds = static_cast<KEM_LONG_T>(now.tv_sec);
        pTimestamp->lMicroseconds = static_cast<KEM_LONG_T>(now.tv_usec);
        finish(pSdCtx, ok());
    }
}

KEM_FUNC_M KemSdLocalTimeGet(KEM_PSDCTX_T pSdCtx, KEM_TIME_T timeVal, KEM_PTIMERECORD_T pTimeRec)
{
    if (!pTimeRec) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pTimeRec = {};
    pTimeRec->TimeValue = static_cast<KEM_LONG_T>(timeVal);
    tm local;
    if (!localtime_r(&timeVal, &local)) return finish(pSdCtx, failErrno(SDSTS_LOCALTIME_FAILED));
    copyFields(*pTimeRec, local);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdTimeStrGet(KEM_PSDCTX_T pSdCtx, KEM_PTIMERECORD_T pTimeRec, KEM_SIZE_T sizeBuf, KEM_STR_T pszTime)
{
    if (!pszTime || !pTimeRec || sizeBuf == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    KemSdMemClear(pSdCtx, pszTime, sizeBuf);
    if (pTimeRec->TimeValue == 0) return finish(pSdCtx, ok());
    const tm fields = brokenDown(*pTimeRec);
    char text[kTextCapacity];
    if (!asctime_r(&fields, text)) return finish(pSdCtx, failErrno(SDSTS_ASCTIME_FAILED));
    strncpy(pszTime, text, sizeBuf - 1);
    trimEnd(pszTime);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdCTime(KEM_PSDCTX_T pSdCtx, KEM_TIME_T timeVal, KEM_SIZE_T sizeBuf, KEM_STR_T pszTimeLocal)
{
    if (!pszTimeLocal || sizeBuf == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    char text[kTextCapacity];
    if (!ctime_r(&timeVal, text)) {
        const sd::Outcome failure = failErrno(SDSTS_CTIME_FAILED);
        pszTimeLocal[0] = 0;
        return finish(pSdCtx, failure);
    }
    // Deliberate: the newline stays, unlike in KemSdTimeStrGet.
    strncpy(pszTimeLocal, text, sizeBuf - 1);
    pszTimeLocal[sizeBuf - 1] = 0;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdSleep(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulMilliseconds)
{
    const timespec duration{static_cast<time_t>(ulMilliseconds / 1000),
                            static_cast<long>(ulMilliseconds % 1000) * 1000000};
    // Deliberate: the call's own result takes the error number's place.
    const int result = nanosleep(&duration, nullptr);
    return finish(pSdCtx, result == -1 ? fail(SDSTS_SLEEP_FAILED, result) : ok(result));
}

KEM_TIME_T KemSdTimetFromDOS(KEM_ULONG_T dos_time, KEM_ULONG_T dos_date) { return timeFromDos(dos_time, dos_date); }

int KemSdGetFileSizeAndCreateDate(KEM_PFILEFINDINFO_T fileinfo, KEM_ULONGLONG_T* size, KEM_PTIME_T time)
{
    if (!fileinfo) return 1;
    if (size) *size = fileinfo->fileSize;
    if (time) *time = fileinfo->createTime;
    return 0;
}
