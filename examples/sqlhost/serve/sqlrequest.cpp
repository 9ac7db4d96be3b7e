// SQL statements, one after the other, until the first that fails. What ends before stays done, but a transaction never
// outlives its request.
#include "serve/requests.h"
#include "sqltext.h"

namespace sqlhost {
namespace {

void runStatement(Database& database, Statement& statement, Answer& answer)
{
    const int before = sqlite3_total_changes(database);
    bool row = statement.step();
    const std::vector<std::string> columns = statement.columns();
    if (!columns.empty()) answer.columns(columns);
    for (; row; row = statement.step()) answer.row(statement.row());
    answer.done(static_cast<uint64_t>(sqlite3_total_changes(database) - before));
}

void runAll(Database& database, std::string_view sql, Answer& answer)
{
    for (std::string_view rest = sql, next; !isBlank(rest); rest = next) try {
            next = rest;
            Statement statement(database, next);
            if (statement) runStatement(database, statement, answer);
        } catch (const Failure& failure) {
            const size_t place = placeOf(sql, rest, sqlite3_error_offset(database));
            throw RequestFailure(static_cast<uint32_t>(place), failure.what());
        }
}

// Undoes what is open, however the request ends.
class TransactionEnd {
public:
    explicit TransactionEnd(Database& database) : database_(database) {}
    ~TransactionEnd() { database_.rollBack(); }
    TransactionEnd(const TransactionEnd&) = delete;
    TransactionEnd& operator=(const TransactionEnd&) = delete;

private:
    Database& database_;
};

} // namespace

void answerSql(Desk& desk, std::string_view sql, Answer& answer)
{
    const TransactionEnd end(desk.database);
    if (sql.find('\0') != std::string_view::npos) throw Failure("the text holds a NUL byte: it is no SQL");
    runAll(desk.database, sql, answer);
    if (desk.database.inTransaction()) throw Failure("the request ended inside a transaction, which was undone");
}

} // namespace sqlhost
