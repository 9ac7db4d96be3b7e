// What a client has with the server from one request to the next. It goes with the session.
#pragma once

#include <memory>

#include "serve/rowspool.h"
#include "serve/writepause.h"

namespace sqlhost {

struct Belongings {
    explicit Belongings(WritePause& writes) : pause(writes) {}

    std::unique_ptr<RowSpool> spool; // the rows of an import that is not yet inserted
    PauseHold pause;
};

} // namespace sqlhost
