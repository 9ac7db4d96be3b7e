// Modules and resource strings. The modules are built beside this test.

#include <gtest/gtest.h>
#include <kemsd/os.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Matches;
using testing::StrEq;

namespace {

constexpr char kNoErrors[] = "No errors";
constexpr int kJunkErrno = 33;

// Standard error of the loading stays out of the test's own.
Ended loadInChild(const char* name)
{
    return inChild([name] {
        KEM_MODHDL_T module = &module;
        const Report report = reported(KemSdModuleLoad, name, &module, FALSE);
        const bool asStated = Matches(Fails(SDSTS_MODULE_LOAD))(report) && !module;
        return asStated && strcmp(KemSdModuleGetErrorMessage(nullptr), kNoErrors) == 0 ? 0 : 1;
    });
}

class Module : public testing::Test {
protected:
    ~Module() override
    {
        if (module_) KemSdModuleUnload(nullptr, module_);
    }
    void load() { ASSERT_THAT(reported(KemSdModuleLoad, LOADABLE, &module_, TRUE), Succeeds()); }

    KEM_MODHDL_T module_ = nullptr;
    KEM_MODFUNC_T function_ = nullptr;
};

} // namespace

TEST_F(Module, LoadedFunctionCanBeCalled)
{
    load();
    ASSERT_THAT(reported(KemSdModuleProcAddrGet, module_, "kemsdTestDouble", &function_), Succeeds());
    EXPECT_EQ(reinterpret_cast<int (*)(int)>(function_)(21), 42);
    EXPECT_THAT(reported(KemSdModuleUnload, module_), Succeeds());
    module_ = nullptr;
}

TEST_F(Module, FunctionsAreBoundAtTheirFirstCall)
{
    load();
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, module_, "kemsdTestUnbound", &function_), Succeeds());
}

TEST_F(Module, TheFlagAboutThePathIsIgnored)
{
    EXPECT_THAT(reported(KemSdModuleLoad, LOADABLE, &module_, FALSE), Succeeds());
    KEM_MODHDL_T found = nullptr;
    EXPECT_THAT(reported(KemSdModuleLoad, "libc.so.6", &found, TRUE), Succeeds());
    EXPECT_THAT(reported(KemSdModuleUnload, found), Succeeds());
}

TEST_F(Module, WithoutNameItIsTheProgramItself)
{
    EXPECT_THAT(reported(KemSdModuleLoad, nullptr, &module_, TRUE), Succeeds());
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, module_, "getpid", &function_), Succeeds());
}

TEST_F(Module, MissingModulePrintsTheLoadersMessageAndLeavesNull)
{
    const Ended ended = loadInChild("/nowhere/plug.so");
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.err, HasSubstr("/nowhere/plug.so: "));
    EXPECT_THAT(ended.err, EndsWith("\n"));
    EXPECT_EQ(ended.out, "");
}

TEST_F(Module, ModuleWithUnresolvedDataIsRefusedWithTheLoadersMessage)
{
    const Ended ended = loadInChild(UNRESOLVED);
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.err, HasSubstr("undefined symbol: kemsdTestMissingData"));
}

TEST_F(Module, LoadingReportsNoErrorNumber)
{
    const Ended ended = inChild([] {
        Failing load(Call::dlopen, EIO);
        KEM_MODHDL_T module = &module;
        return Matches(Fails(SDSTS_MODULE_LOAD, 0))(reported(KemSdModuleLoad, LOADABLE, &module, TRUE)) ? 0 : 1;
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "No errors\n"); // the loader itself knows of none
}

TEST_F(Module, MissingSymbolIsNullAndReportsErrnoAsFound)
{
    load();
    function_ = reinterpret_cast<KEM_MODFUNC_T>(abort);
    errno = kJunkErrno;
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, module_, "kemsdTestNowhere", &function_),
                Fails(SDSTS_MODULE_SYMBOL, kJunkErrno));
    EXPECT_EQ(function_, nullptr);
    Failing lookUp(Call::dlsym, EIO);
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, module_, "kemsdTestDouble", &function_),
                Fails(SDSTS_MODULE_SYMBOL, EIO));
}

TEST_F(Module, ErrorMessageIsTheLoadersOnceThenNoErrors)
{
    load();
    EXPECT_THAT(KemSdModuleGetErrorMessage(nullptr), StrEq(kNoErrors));
    KemSdModuleProcAddrGet(nullptr, module_, "kemsdTestNowhere", &function_);
    KEM_SDCTX_T context{};
    context.sts = kUntouchedSts;
    EXPECT_THAT(KemSdModuleGetErrorMessage(&context), HasSubstr("undefined symbol: kemsdTestNowhere"));
    EXPECT_THAT(KemSdModuleGetErrorMessage(&context), StrEq(kNoErrors));
    EXPECT_EQ(context.sts, kUntouchedSts);
}

// The C library stays whoever gives it back, so its handle still is one.
TEST_F(Module, IsGivenBackOnceForEachLoadingAndThenRefused)
{
    KEM_MODHDL_T first = nullptr, again = nullptr;
    ASSERT_THAT(reported(KemSdModuleLoad, "libc.so.6", &first, TRUE), Succeeds());
    ASSERT_THAT(reported(KemSdModuleLoad, "libc.so.6", &again, TRUE), Succeeds());
    EXPECT_EQ(first, again);
    EXPECT_THAT(reported(KemSdModuleUnload, first), Succeeds());
    EXPECT_THAT(reported(KemSdModuleUnload, again), Succeeds());
    errno = kJunkErrno;
    EXPECT_THAT(reported(KemSdModuleUnload, again), Fails(-1, kJunkErrno));
    EXPECT_THAT(KemSdModuleGetErrorMessage(nullptr), HasSubstr("not open"));
}

TEST_F(Module, UnloadingPassesTheLoadersResultOnWithErrno)
{
    load();
    for (const int result : {-1, 1, 77}) {
        Failing unload(Call::dlclose, EBUSY, result);
        EXPECT_THAT(reported(KemSdModuleUnload, module_), Fails(result, EBUSY));
    }
}

TEST_F(Module, NullArgumentsAreInvalid)
{
    EXPECT_THAT(reported(KemSdModuleLoad, LOADABLE, nullptr, TRUE), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, nullptr, nullptr, &function_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdModuleProcAddrGet, nullptr, "getpid", nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdModuleUnload, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdModuleUnload(nullptr, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(Module, NamesAndHandlesOfLoadedModulesAreNotSupported)
{
    char name[] = "name";
    module_ = nullptr;
    EXPECT_THAT(reported(KemSdModuleNameGet, nullptr, sizeof name, name), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdModuleNameGet, nullptr, 0, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdModuleHandleGet, &module_), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdModuleHandleGet, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_STREQ(name, "name");
    EXPECT_EQ(module_, nullptr);
}

TEST(ResourceString, IsNeverThereAndNothingIsWritten)
{
    char text[] = "text";
    KEM_STR_T place = text;
    EXPECT_THAT(reported(KemSdUIResStringLoad, nullptr, 1, 2, text, sizeof text), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdUIResStringLoad, nullptr, 0, 0, nullptr, 0), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdUIResStringAllocLoad, nullptr, 1, 2, &place), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdUIResStringAllocLoad, nullptr, 0, 0, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(place, text);
}

// ---- The lease guard

namespace {

int passes;
int passesOf(const std::function<void()>& call)
{
    passes = 0;
    call();
    return passes;
}

class ModuleGuard : public Module {
protected:
    ModuleGuard()
    {
        load();
        KemSdSetLeaseGuardAccessFunction([] { ++passes; });
        KemSdSetFailoverModeFlag(TRUE);
    }
    ~ModuleGuard() override
    {
        KemSdSetFailoverModeFlag(FALSE);
        KemSdSetLeaseGuardAccessFunction(nullptr);
    }
};

} // namespace

TEST_F(ModuleGuard, RunsOnceBeforeLoadingAndLookingUpAlsoWhenTheArgumentsAreWrong)
{
    KEM_MODHDL_T again = nullptr;
    EXPECT_EQ(passesOf([&] { KemSdModuleLoad(nullptr, LOADABLE, &again, TRUE); }), 1);
    EXPECT_EQ(passesOf([&] { KemSdModuleLoad(nullptr, LOADABLE, nullptr, TRUE); }), 1);
    EXPECT_EQ(passesOf([&] { KemSdModuleProcAddrGet(nullptr, module_, "kemsdTestDouble", &function_); }), 1);
    EXPECT_EQ(passesOf([&] { KemSdModuleProcAddrGet(nullptr, module_, nullptr, &function_); }), 1);
    KemSdSetFailoverModeFlag(FALSE);
    EXPECT_EQ(passesOf([&] { KemSdModuleProcAddrGet(nullptr, module_, "kemsdTestDouble", &function_); }), 0);
    EXPECT_EQ(passesOf([&] { KemSdModuleUnload(nullptr, again); }), 0);
}

TEST_F(ModuleGuard, DoesNotRunInTheOtherCalls)
{
    char text[8] = "";
    KEM_STR_T place = text;
    EXPECT_EQ(passesOf([] { KemSdModuleGetErrorMessage(nullptr); }), 0);
    EXPECT_EQ(passesOf([&] { KemSdModuleNameGet(nullptr, module_, sizeof text, text); }), 0);
    EXPECT_EQ(passesOf([&] { KemSdModuleHandleGet(nullptr, &module_); }), 0);
    EXPECT_EQ(passesOf([&] { KemSdUIResStringLoad(nullptr, nullptr, 0, 0, text, sizeof text); }), 0);
    EXPECT_EQ(passesOf([&] { KemSdUIResStringAllocLoad(nullptr, nullptr, 0, 0, &place); }), 0);
    KEM_MODHDL_T given = module_;
    module_ = nullptr;
    EXPECT_EQ(passesOf([=] { EXPECT_EQ(KemSdModuleUnload(nullptr, given), 0); }), 0);
}
