// How a connection of the server differs from one of a program's own: its client may be gone at any moment, it shares
// the database with other clients, and no request may leave anything behind that binds the next one.
#pragma once

#include "database.h"
#include "wire/channel.h"

namespace sqlhost {

constexpr uint32_t kLongestValue = 1 << 26; // bytes of a value or a row

// Sets the connection up. The channel must outlive it: once it is given up, statements end as interrupted.
void guard(Database& database, const Channel& channel);

} // namespace sqlhost
