#include <kemsd/memory.h>
#include <sqlite3.h>

#include <cstdio>

#include "commands.h"
#include "database.h"
#include "input.h"
#include "table.h"

namespace sqlhost {
namespace {

using Kind = Table::Kind;

// ---- Workload ----------------------------------------------------------------------------------------------------

struct Work {
    uint64_t statements = 0;
    uint64_t rows = 0;
};

void runAll(Database& database, std::string_view sql, Work& work)
{
    while (!sql.empty()) {
        Statement statement(database, sql);
        if (!statement) continue;
        ++work.statements;
        while (statement.step()) ++work.rows;
    }
}

// Counts and sorts every table: the pages pass through the cache, the rows through the sorter.
std::string ownWorkload(Database& database)
{
    std::string sql;
    Statement tables(database, std::string("SELECT name FROM sqlite_schema WHERE type='table' ORDER BY name"));
    while (tables.step()) {
        const std::string name = quotedName(reinterpret_cast<const char*>(sqlite3_column_text(tables, 0)));
        sql += "SELECT count(*) FROM " + name + "; SELECT * FROM " + name + " ORDER BY 1 DESC;";
    }
    return sql;
}

// ---- Report ------------------------------------------------------------------------------------------------------

void addLine(Table& table, const char* what, const std::string& value) { table.add({{what}, {value, Kind::number}}); }

void printSettings()
{
    enum { limit, slots, maxHeaps, heapSize, shortHeapSize, maxBlock, control };
    OV_ULONGLONG_T settings[7] = {};
    ovMemGetMemorySettings(settings);
    const bool heaps = static_cast<int64_t>(settings[slots]) > 0;
    Table table({"Settings in force", "value"});
    addLine(table, "memory limit", settings[limit] ? bytesText(settings[limit]) : "none");
    addLine(table, "memory control", settings[control] ? "on" : "off");
    addLine(table, "thread heaps", heaps ? countText(settings[slots]) : "off");
    addLine(table, "heaps at most", countText(settings[maxHeaps]));
    addLine(table, "size of a heap", bytesText(settings[heapSize]));
    addLine(table, "size of a short-term heap", settings[shortHeapSize] ? bytesText(settings[shortHeapSize]) : "off");
    addLine(table, "largest block from a heap", bytesText(settings[maxBlock]));
    table.print();
}

void printUsage()
{
    OV_ULONGLONG_T outside, heaps, aligned, maxUsed, maxAligned, maxTotal, settings[7] = {};
    if (ovMemGetUsedMemory(&outside, &heaps, &aligned, &maxUsed, &maxAligned, &maxTotal) != 0) {
        printf("\nMemory in use is not counted: memory control is off.\n");
        return;
    }
    ovMemGetMemorySettings(settings);
    Table table({"Memory in use", "now", "highest"});
    const auto add = [&](const char* what, uint64_t now, const std::string& highest) {
        table.add({{what}, {bytesText(now), Kind::number}, {highest, Kind::number}});
    };
    const uint64_t made = settings[3] ? heaps / settings[3] : 0;
    add(text("heaps (%s made)", countText(made).c_str()).c_str(), heaps, "");
    add("blocks outside heaps", outside, "");
    add("both", heaps + outside, bytesText(maxUsed));
    add("aligned and mapped pages", aligned, bytesText(maxAligned));
    add("in all", heaps + outside + aligned, bytesText(maxTotal));
    if (settings[0]) add("memory limit", settings[0], "");
    printf("\n");
    table.print();
}

void printEngine()
{
    sqlite3_int64 now = 0, highest = 0, blocks = 0, mostBlocks = 0;
    sqlite3_status64(SQLITE_STATUS_MEMORY_USED, &now, &highest, 0);
    sqlite3_status64(SQLITE_STATUS_MALLOC_COUNT, &blocks, &mostBlocks, 0);
    Table table({"SQLite's share", "now", "highest"});
    table.add({{"bytes"},
               {bytesText(static_cast<uint64_t>(now)), Kind::number},
               {bytesText(static_cast<uint64_t>(highest)), Kind::number}});
    table.add({{"blocks"},
               {countText(static_cast<uint64_t>(blocks)), Kind::number},
               {countText(static_cast<uint64_t>(mostBlocks)), Kind::number}});
    printf("\n");
    table.print();
}

// Bucket 0 holds up to 160 bytes, bucket 1 up to 1 KiB, and each further one twice the one before.
std::string bucketText(int bucket)
{
    if (bucket == 0) return "to 160 bytes";
    if (bucket == OV_MEM_BUCKETS - 1) return "larger";
    return "to " + bytesText(uint64_t{512} << bucket);
}

void printBuckets()
{
    constexpr int kSinceStart = 1;
    OV_ULONGLONG_T allocated[OV_MEM_BUCKETS], released[OV_MEM_BUCKETS];
    if (ovMemGetUsedMemoryBlocks(kSinceStart, allocated, released) != 0) {
        printf("\nBlocks are not counted: the configuration lacks memoryblockscontrol.\n");
        return;
    }
    Table table({"Blocks by size", "allocated", "released"});
    uint64_t allAllocated = 0, allReleased = 0;
    for (int i = 0; i < OV_MEM_BUCKETS; ++i) {
        table.add({{bucketText(i)}, {countText(allocated[i]), Kind::number}, {countText(released[i]), Kind::number}});
        allAllocated += allocated[i];
        allReleased += released[i];
    }
    table.add({{"in all"}, {countText(allAllocated), Kind::number}, {countText(allReleased), Kind::number}});
    printf("\n");
    table.print();
    printf("An allocation counts by the bytes asked for, a release by what the block could hold.\n");
}

} // namespace

void reportMemory(Server& server, const std::string& path, const std::string& file)
{
    Database database(path, DatabaseMode::existing);
    Work work;
    const std::string given = file.empty() ? "" : Input(server.context(), file).rest();
    try {
        const std::string sql = file.empty() ? ownWorkload(database) : given;
        runAll(database, sql, work);
    } catch (const Failure& failure) {
        throw Failure((file.empty() ? path : file) + ": " + failure.what());
    }
    printf("Workload       %s, %s\n", countedText(work.statements, "statement").c_str(),
           countedText(work.rows, "row").c_str());
    printf("Configuration  %s\n\n", server.memoryFile().c_str());
    printSettings();
    printUsage();
    printEngine();
    printBuckets();
}

} // namespace sqlhost
