#include <algorithm>
#include <cstdio>

#include "client/asker.h"
#include "client/commands.h"
#include "client/runtime.h"
#include "client/sqlreader.h"
#include "input.h"
#include "sqltext.h"

namespace sqlhost {
namespace {

// The line of an error that the server has placed in the text, or of the text's beginning.
size_t lineOf(const SqlReader& reader, uint32_t place)
{
    const size_t at = place == kNoPlace ? placeOf(reader.text(), reader.text(), -1) : place;
    return reader.line() - 1 + lineAt(reader.text(), std::min(at, reader.text().size()));
}

// `name`: of the text, for the sentence about an error; may be empty.
void runText(ServerLink& link, SqlReader reader, const std::string& name, ResultPrinter& printer)
{
    while (reader.next()) try {
            askAndPrint(link.connection(), kRequestSql, reader.text(), printer);
        } catch (const Failure& failure) {
            fflush(stdout);
            if (name.empty()) throw;
            const auto* const error = dynamic_cast<const ServerError*>(&failure);
            throw Failure(text("%s, line %zu: %s", name.c_str(), lineOf(reader, error ? error->place : kNoPlace),
                               failure.what()));
        }
}

} // namespace

void sqlOnServer(const std::string& directory, const std::vector<std::string>& statements, bool asCsv)
{
    ClientRuntime runtime;
    ServerLink link(runtime.context(), directory);
    ResultPrinter printer(asCsv);
    link.connection(); // the first complaint is that there is no server
    for (size_t i = 0; i < statements.size(); ++i) {
        size_t at = 0;
        const std::string& all = statements[i];
        const auto nextByte = [&] { return at < all.size() ? static_cast<unsigned char>(all[at++]) : -1; };
        runText(link, SqlReader(nextByte), statements.size() > 1 ? text("statement %zu", i + 1) : "", printer);
    }
    if (!statements.empty()) return;
    Input input(runtime.context(), "-");
    runText(link, SqlReader([&] { return input.get(); }), input.name(), printer);
}

} // namespace sqlhost
