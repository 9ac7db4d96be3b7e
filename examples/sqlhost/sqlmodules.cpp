#include "sqlmodules.h"

#include <cstdio>
#include <filesystem>

#include "printed.h"
#include "text.h"

namespace sqlhost {

SqlModules::SqlModules(KEM_PSDCTX_T context, const std::vector<std::string>& files)
{
    for (const std::string& file : files) modules_.emplace_back(context, file);
}

void SqlModules::addTo(Database& database, KEM_PSDCTX_T context) const
{
    for (const Loaded& module : modules_) module.addTo(database, context);
}

// The destructor does not run for a module that has no entry.
SqlModules::Loaded::Loaded(KEM_PSDCTX_T context, const std::string& file) : context_(context), file_(file)
{
    load();
    try {
        findEntry();
    } catch (const Failure&) {
        KemSdModuleUnload(context_, module_);
        throw;
    }
}

SqlModules::Loaded::~Loaded()
{
    if (KemSdModuleUnload(context_, module_) == 0) return;
    fprintf(stderr, "sqlhost: %s cannot be unloaded: %s\n", file_.c_str(), KemSdModuleGetErrorMessage(context_));
}

// By its full path: the loader would look for a mere name elsewhere. A failed load says why on standard error, once.
void SqlModules::Loaded::load()
{
    const std::string path = std::filesystem::absolute(file_).string();
    KEM_STS_T status = 0;
    std::string said = printedBy(stderr, [&] { status = KemSdModuleLoad(context_, path.c_str(), &module_, TRUE); });
    if (status != 0) {
        while (said.ends_with('\n')) said.pop_back();
        throw Failure(text("module %s cannot be loaded: %s", file_.c_str(), said.c_str()));
    }
    fputs(said.c_str(), stderr); // by the module itself
}

void SqlModules::Loaded::findEntry()
{
    KEM_MODFUNC_T entry = nullptr;
    if (KemSdModuleProcAddrGet(context_, module_, "sqlhostRegister", &entry) != 0)
        throw Failure(text("%s is no module for sqlhost: %s", file_.c_str(), KemSdModuleGetErrorMessage(context_)));
    register_ = reinterpret_cast<decltype(register_)>(entry);
}

void SqlModules::Loaded::addTo(Database& database, KEM_PSDCTX_T context) const
{
    if (const char* const reason = register_(database, context))
        throw Failure(text("module %s refuses to work: %s", file_.c_str(), reason));
}

} // namespace sqlhost
