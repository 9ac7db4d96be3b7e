// The modules that add functions to SQL; modules/sqlhostmodule.h says what a module is.
#pragma once

#include <kemsd/os.h>

#include <deque>
#include <string>
#include <vector>

#include "database.h"
#include "modules/sqlhostmodule.h"

namespace sqlhost {

class SqlModules {
public:
    // Loads the files, before there is a second thread. Throws Failure.
    SqlModules(KEM_PSDCTX_T context, const std::vector<std::string>& files);
    SqlModules(const SqlModules&) = delete;
    SqlModules& operator=(const SqlModules&) = delete;

    // Has each of them register what it adds with a new connection of the calling thread, whose context this is. All
    // connections must have been closed when the object goes. Throws Failure.
    void addTo(Database& database, KEM_PSDCTX_T context) const;

private:
    class Loaded {
    public:
        Loaded(KEM_PSDCTX_T context, const std::string& file);
        ~Loaded();
        Loaded(const Loaded&) = delete;
        Loaded& operator=(const Loaded&) = delete;

        void addTo(Database& database, KEM_PSDCTX_T context) const;

    private:
        void load();
        void findEntry();

        KEM_PSDCTX_T context_;
        std::string file_;
        KEM_MODHDL_T module_ = nullptr;
        decltype(&sqlhostRegister) register_ = nullptr;
    };

    std::deque<Loaded> modules_; // none of them ever moves
};

} // namespace sqlhost
