/* median(x): the value in the middle of a group, or the mean of the two there. NULL is left out; a group without
 * numbers has none. The numbers are kept in SQLite's memory, which is the server's: its limit holds for them too. */
#include <stdlib.h>

#include "sqlhostmodule.h"

struct Numbers {
    double* values;
    sqlite3_uint64 count, room;
};

static int makeRoom(struct Numbers* numbers)
{
    if (numbers->count < numbers->room) return 1;
    const sqlite3_uint64 room = numbers->room ? 2 * numbers->room : 64;
    double* const values = sqlite3_realloc64(numbers->values, room * sizeof *values);
    if (!values) return 0;
    numbers->values = values;
    numbers->room = room;
    return 1;
}

static void medianStep(sqlite3_context* call, int count, sqlite3_value** arguments)
{
    (void)count;
    const int type = sqlite3_value_numeric_type(arguments[0]);
    if (type == SQLITE_NULL) return;
    if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) {
        sqlite3_result_error(call, "median() is of numbers alone", -1);
        return;
    }
    struct Numbers* const numbers = sqlite3_aggregate_context(call, sizeof *numbers);
    if (numbers && makeRoom(numbers))
        numbers->values[numbers->count++] = sqlite3_value_double(arguments[0]);
    else
        sqlite3_result_error_nomem(call);
}

static int compare(const void* left, const void* right)
{
    const double a = *(const double*)left, b = *(const double*)right;
    return (a > b) - (a < b);
}

/* Called for every group, also after an error. */
static void medianFinal(sqlite3_context* call)
{
    struct Numbers* const numbers = sqlite3_aggregate_context(call, 0);
    if (!numbers || !numbers->values) return;
    qsort(numbers->values, numbers->count, sizeof *numbers->values, compare);
    const double* const middle = numbers->values + numbers->count / 2;
    /* Halves first: the sum of two large numbers may be infinite. */
    if (numbers->count > 0)
        sqlite3_result_double(call, numbers->count % 2 ? middle[0] : middle[-1] / 2 + middle[0] / 2);
    sqlite3_free(numbers->values);
}

const char* sqlhostRegister(sqlite3* connection, KEM_PSDCTX_T context)
{
    (void)context;
    const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    const int result = sqlite3_create_function_v2(connection, "median", 1, flags, 0, 0, medianStep, medianFinal, 0);
    return result == SQLITE_OK ? 0 : sqlite3_errstr(result);
}
