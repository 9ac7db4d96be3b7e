// An import that a client sends. The rows are only kept until the order to insert them comes.
#include <kemsd/memory.h>

#include <mutex>

#include "serve/belongings.h"
#include "serve/requests.h"
#include "serve/service.h"
#include "sqlvfs.h"
#include "wire/fields.h"

namespace sqlhost {
namespace {

constexpr char kSenseless[] = "the description of the import makes no sense";
constexpr uint64_t kRowsBetweenLooks = 64;

ColumnType typeOf(char letter)
{
    for (const ColumnType type : {ColumnType::integer, ColumnType::real, ColumnType::text})
        if (static_cast<char>(type) == letter) return type;
    throw Failure(kSenseless);
}

// SQL text ends at a NUL.
std::string nameOf(std::string_view name)
{
    if (name.empty() || name.find('\0') != std::string_view::npos) throw Failure(kSenseless);
    return std::string(name);
}

ImportTarget targetOf(FieldReader fields)
{
    ImportTarget target;
    target.spill = fields.number<uint8_t>() & kImportSpills;
    target.table = nameOf(fields.text());
    for (unsigned columns = fields.number<uint16_t>(); columns > 0; --columns) {
        const std::string name = nameOf(fields.text());
        target.columns.push_back({name, typeOf(fields.number<char>())});
    }
    if (target.columns.empty() || !fields.atEnd()) throw Failure(kSenseless);
    return target;
}

// The limit is the server's, so what one import may bring it to is less: four fifths leave room for the other clients.
void requireRoom()
{
    OV_ULONGLONG_T outside, heaps, aligned, maxUsed, maxAligned, maxTotal, settings[7] = {};
    if (ovMemGetUsedMemory(&outside, &heaps, &aligned, &maxUsed, &maxAligned, &maxTotal) != 0) return;
    ovMemGetMemorySettings(settings);
    const uint64_t limit = settings[0];
    if (limit == 0 || outside + heaps + aligned <= limit / 5 * 4) return;
    throw Failure(text("the server has no memory left for a larger import, its limit is %s", bytesText(limit).c_str()));
}

void insertAll(RowSpool& rows, TableImport& import)
{
    for (rows.rewind(); rows.next();) try {
            if (import.rows() % kRowsBetweenLooks == 0) requireRoom();
            import.insert(rows.row());
        } catch (const Failure& failure) {
            throw RequestFailure(rows.line(), failure.what());
        }
}

} // namespace

void answerImport(Desk& desk, std::string_view description, Answer&)
{
    std::unique_ptr<RowSpool>& spool = desk.belongings.spool;
    spool.reset();
    ImportTarget target = targetOf(FieldReader(description, kSenseless));
    const std::string path = desk.service.directory().spool(desk.slot.segment, static_cast<unsigned>(desk.slot.slot));
    spool = std::make_unique<RowSpool>(threadContext(), path, std::move(target));
}

void answerRows(Desk& desk, std::string_view rows, Answer&)
{
    std::unique_ptr<RowSpool>& spool = desk.belongings.spool;
    if (!spool) throw Failure("rows without an import");
    try {
        spool->add(rows);
    } catch (const Failure&) {
        spool.reset();
        throw;
    }
}

// Imports take turns before they compete with other writers, who may wait for less long.
void answerInsert(Desk& desk, std::string_view, Answer& answer)
{
    const std::unique_ptr<RowSpool> spool = std::move(desk.belongings.spool);
    if (!spool) throw Failure("an end without an import");
    const std::lock_guard turn(desk.service.importTurn());
    TableImport import(desk.database, spool->target());
    insertAll(*spool, import);
    import.commit();
    answer.done(import.rows());
}

} // namespace sqlhost
