#include "client/asker.h"

#include "client/answerreader.h"

namespace sqlhost {
namespace {

std::vector<std::string> columnsOf(FieldReader fields)
{
    std::vector<std::string> columns(fields.number<uint16_t>());
    for (std::string& name : columns) name = fields.text();
    return columns;
}

int typeOf(char type)
{
    switch (type) {
        case kValueNull:
            return SQLITE_NULL;
        case kValueInteger:
            return SQLITE_INTEGER;
        case kValueReal:
            return SQLITE_FLOAT;
        case kValueText:
            return SQLITE_TEXT;
        case kValueBlob:
            return SQLITE_BLOB;
        default:
            throw Failure("the server's answer holds a value of no known type");
    }
}

std::vector<Value> rowOf(FieldReader fields, size_t columns)
{
    std::vector<Value> row(columns);
    for (Value& value : row) {
        value.type = typeOf(fields.number<char>());
        if (value.type != SQLITE_NULL) value.bytes = fields.text();
    }
    return row;
}

[[noreturn]] void raise(FieldReader fields)
{
    const uint32_t place = fields.number<uint32_t>();
    throw ServerError(place, std::string(fields.rest()));
}

// After an error frame nothing but the code comes, which is taken before the error is told. The last line of a result
// is let go of when the code has come: who sees it knows that the server has no more to do with this request.
void printAnswer(AnswerReader& answer, ResultPrinter& printer)
{
    std::string error;
    std::vector<std::string> columns;
    while (answer.next()) {
        const FieldReader fields(answer.payload());
        if (!error.empty()) throw Failure("the server's answer goes on after an error");
        if (answer.type() == kFrameColumns) {
            columns = columnsOf(fields);
            printer.begin(columns);
        } else if (answer.type() == kFrameRow) {
            printer.add(rowOf(fields, columns.size()));
        } else if (answer.type() == kFrameDone) {
            columns.empty() ? printer.changed(FieldReader(fields).number<uint64_t>()) : printer.end();
            columns.clear();
        } else if (answer.type() == kFrameError) {
            error = answer.payload();
        }
    }
    if (!error.empty()) raise(FieldReader(error));
    printer.flush();
}

uint64_t numberOf(AnswerReader& answer)
{
    std::string error;
    uint64_t number = 0;
    while (answer.next()) {
        if (answer.type() == kFrameDone)
            number = FieldReader(answer.payload()).number<uint64_t>();
        else if (answer.type() == kFrameError)
            error = answer.payload();
    }
    if (!error.empty()) raise(FieldReader(error));
    return number;
}

// An answer that was not read to its end leaves the conversation of no further use.
template <class Take>
auto converse(Connection& connection, char type, std::string_view payload, const char* unanswered, Take take)
try {
    connection.ask(type, payload);
    AnswerReader answer(connection.context(), connection.channel());
    return take(answer);
} catch (const PeerGone&) {
    throw Failure(
        text("the server with process id %d ended before it had answered: %s", connection.server().pid, unanswered));
} catch (const ServerError&) {
    throw;
} catch (const Failure&) {
    connection.channel().giveUp(connection.context());
    throw;
}

} // namespace

void askAndPrint(Connection& connection, char type, std::string_view payload, ResultPrinter& printer)
{
    converse(connection, type, payload, kOutcomeUnknown, [&](AnswerReader& answer) { printAnswer(answer, printer); });
}

uint64_t askForNumber(Connection& connection, char type, std::string_view payload, const char* unanswered)
{
    return converse(connection, type, payload, unanswered, numberOf);
}

} // namespace sqlhost
