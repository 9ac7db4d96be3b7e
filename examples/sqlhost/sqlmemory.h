// SQLite's memory methods, served by ovMalloc, ovRealloc and ovFree.
#pragma once

#include <sqlite3.h>

namespace sqlhost {

const sqlite3_mem_methods& kemsdMemoryMethods();

} // namespace sqlhost
