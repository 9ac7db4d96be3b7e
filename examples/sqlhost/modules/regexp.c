/* regexp(pattern, x), which SQL writes x REGEXP pattern: whether an extended regular expression, as grep -E has them,
 * matches a part of the text. NULL on either side gives NULL. */
#include <regex.h>

#include "sqlhostmodule.h"

static void freePattern(void* pattern)
{
    regfree(pattern);
    sqlite3_free(pattern);
}

/* Null after an error has been reported. */
static regex_t* compile(sqlite3_context* call, const char* text)
{
    regex_t* const pattern = sqlite3_malloc(sizeof *pattern);
    if (!pattern) {
        sqlite3_result_error_nomem(call);
        return 0;
    }
    const int result = regcomp(pattern, text, REG_EXTENDED | REG_NOSUB);
    if (result == 0) return pattern;
    char reason[200];
    regerror(result, pattern, reason, sizeof reason);
    sqlite3_free(pattern);
    sqlite3_result_error(call, reason, -1);
    return 0;
}

/* A pattern that is the same for all rows is compiled once: SQLite keeps it, or frees it at once when it cannot. */
static const regex_t* patternOf(sqlite3_context* call, sqlite3_value* value)
{
    const regex_t* kept = sqlite3_get_auxdata(call, 0);
    if (kept) return kept;
    regex_t* const pattern = compile(call, (const char*)sqlite3_value_text(value));
    if (!pattern) return 0;
    sqlite3_set_auxdata(call, 0, pattern, freePattern);
    kept = sqlite3_get_auxdata(call, 0);
    if (!kept) sqlite3_result_error_nomem(call);
    return kept;
}

static void regexpCall(sqlite3_context* call, int count, sqlite3_value** arguments)
{
    (void)count;
    const char* const text = (const char*)sqlite3_value_text(arguments[1]);
    if (!text || !sqlite3_value_text(arguments[0])) return;
    const regex_t* const pattern = patternOf(call, arguments[0]);
    if (pattern) sqlite3_result_int(call, regexec(pattern, text, 0, 0, 0) == 0);
}

const char* sqlhostRegister(sqlite3* connection, KEM_PSDCTX_T context)
{
    (void)context;
    const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    const int result = sqlite3_create_function_v2(connection, "regexp", 2, flags, 0, regexpCall, 0, 0, 0);
    return result == SQLITE_OK ? 0 : sqlite3_errstr(result);
}
