// A deleter over the library's release, threads over its allocations: what a C++ server would write first.
#include <kemsd/kemsd.h>

#include <cstdio>
#include <memory>

namespace {

struct Release {
    void operator()(void* block) const { ovFree(block, __FILE__, __LINE__); }
};

void* fill(void* place)
{
    void* block = nullptr;
    if (ovMalloc(nullptr, 1000, &block, __FILE__, __LINE__) != 0) return nullptr;
    const std::unique_ptr<void, Release> held(block);
    *static_cast<int*>(place) = KemSdMemClear(nullptr, held.get(), 1000) == 0;
    return nullptr;
}

} // namespace

int main()
{
    int filled = 0;
    KEM_THDID_T id{};
    KEM_THDHDL_T handle{};
    if (KemSdThreadCreate(nullptr, fill, nullptr, 0, &filled, &id, &handle) != 0) return 1;
    if (KemSdThreadJoin(nullptr, &handle) != 0 || filled != 1) return 1;
    std::printf("%s from C++: all well\n", pszModuleVer);
}
