// SQLite's mutexes, served by kemsd's.
#pragma once

#include <sqlite3.h>

namespace sqlhost {

const sqlite3_mutex_methods& kemsdMutexMethods();

} // namespace sqlhost
