// An allocation that fails inside either library comes back as a status, never as an exception
// through the C boundary. This program replaces the global operator new so that the n-th
// allocation after arming fails, and drives both libraries through their C API for every n.
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>

namespace {

long g_nAllocationsUntilFailure = 0; // 0: disarmed
long g_nAllocationsMade = 0;         // while armed
bool g_bFailed = false;

void *Allocate(size_t size) {
    if (g_nAllocationsUntilFailure > 0)
        ++g_nAllocationsMade;
    if (g_nAllocationsUntilFailure > 0 && --g_nAllocationsUntilFailure == 0) {
        g_bFailed = true;
        throw std::bad_alloc();
    }
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}

} // namespace

void *operator new(size_t size) {
    return Allocate(size);
}
void *operator new[](size_t size) {
    return Allocate(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
void *operator new[](size_t size, const std::nothrow_t &tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void *p) noexcept {
    std::free(p);
}
void operator delete[](void *p) noexcept {
    std::free(p);
}
void operator delete(void *p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void *p, size_t) noexcept {
    std::free(p);
}
void operator delete(void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}

namespace {

// One call into a library; it answers the call's status.
using Step = std::function<uint32_t()>;

// brix's results as statuses: 0 for success, 1 for any refusal.
uint32_t Brx(int32_t result) {
    return result ? 1u : 0u;
}

// The steps of one run in each mode. Every value a step passes is made before the run, so
// the only allocations while a step runs are the libraries' own.
struct ApiRun {
    std::string written, object;
    BrxHandle file = 0, symbols = 0, text = 0, start = 0;
    DbgSource source = nullptr;
    DbgType type = nullptr, procType = nullptr;
    DbgObject procedure = nullptr, object_ = nullptr;
    DbgScope scope = nullptr;
    DbgSourceHandle *sourceHandle = nullptr;
    DbgSourceResult found{};
    DbgInstInfo info{};
    uint32_t count = 0, size = 0;
    char name[256] = {};
    std::vector<Step> steps;

    ApiRun(std::string writtenPath, std::string objectPath)
        : written(std::move(writtenPath)), object(std::move(objectPath)) {
        static const uint8_t code[16] = {0x90};
        static const uint16_t version[3] = {1, 0, 0};
        static const uint16_t codeFlags = BRX_SECTION_CODE;
        static const uint32_t global = BRX_BINDING_GLOBAL, function = BRX_SYMBOL_FUNCTION;
        static const uint64_t zero = 0, end = 16;
        static const int32_t data4 = 6;
        static const uint32_t reg = 3;
        steps = {
            [] { return Dbg_init(0); },
            [this] { return Brx(_brx_new_file(written.c_str(), BRX_FORMAT_ELF64, &file)); },
            [this] {
                BrxFind find{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
                return Brx(_brx_get_keyed(file, BRX_KEY_FIND, &find, &symbols, 0));
            },
            [this] {
                BrxAttr attrs[] = {{BRX_KEY_NAME, ".text"}, {BRX_KEY_SECTION_FLAGS, &codeFlags}};
                return Brx(_brx_create_object(file, BRX_FORMAT_ELF64, BRX_KIND_SECTION, 2, attrs,
                                              &text, 0));
            },
            [this] {
                BrxBytes bytes{sizeof code, 0, const_cast<uint8_t *>(code)};
                return Brx(_brx_set_value(text, BRX_KEY_SECTION_DATA, &bytes, 0));
            },
            [this] {
                BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, "start"},
                                   {BRX_KEY_SYMBOL_SECTION, &text},
                                   {BRX_KEY_SYMBOL_OFFSET, &zero},
                                   {BRX_KEY_SYMBOL_BINDING, &global},
                                   {BRX_KEY_SYMBOL_TYPE, &function}};
                return Brx(_brx_create_object(symbols, BRX_FORMAT_ELF64, BRX_KIND_SYMBOL, 5, attrs,
                                              &start, 0));
            },
            [this] {
                return Dbg_open_module_scope(file, 1, 0, 0, 1, version, version, u"test 1.0",
                                             u"/work", u"a.s", u"/bin/test", &scope);
            },
            [this] { return DbgLine_create_source(u"/work/a.s", &source); },
            [this] { return Dbg_open_section_scope(text, &scope); },
            [this] {
                DbgEntryList entries{&start, 1};
                DbgObjectProp props[] = {
                    {DBG_PROP_ENTRY_LIST, &entries}, {DBG_PROP_START, &zero}, {DBG_PROP_END, &end}};
                return Dbg_create_object(DBG_OBJ_PROCEDURE, props, 3, nullptr, &procedure);
            },
            [this] { return Dbg_open_procedure_scope(procedure, &scope); },
            [this] {
                DbgLineDesc line{source, 1, 1, 0, 0, 0};
                return Dbg_create_line(nullptr, &line);
            },
            [this] {
                DbgLineDesc line{source, 2, 1, 4, 0, 0};
                return Dbg_create_line(nullptr, &line);
            },
            [this] { return Dbg_base_type(data4, &type); },
            [this] { return Dbg_procedure_type(type, 1, &procType); },
            [this] {
                DbgObjectProp props[] = {
                    {DBG_PROP_NAME, "r"}, {DBG_PROP_BASE_TYPE, &data4}, {DBG_PROP_REGISTER, &reg}};
                return Dbg_create_object(DBG_OBJ_ENREG_SYM, props, 3, nullptr, &object_);
            },
            [] { return Dbg_close_current_scope(); },
            [] { return Dbg_emit(); },
            [this] { return Brx(_brx_write_file(file)); },
            [] { return Dbg_finish(); },
            [this] { return Brx(_brx_close_file(file)); },
        };
        m_nRetrievalStart = steps.size();
        const Step retrieval[] = {
            [] { return Dbg_init(1); },
            [this] {
                return DbgLine_open_object_and_source_file(object.c_str(), "/WORK/a.s",
                                                           &sourceHandle);
            },
            [this] {
                DbgSourceQuery query{sourceHandle, 2, 1};
                return DbgLine_get_inst_info_by_source(0, &query, &found);
            },
            [this] {
                DbgOffsetQuery query{found.handle, 4};
                return DbgLine_get_inst_info_by_offset(1, &query, &info);
            },
            [this] { return DbgLine_get_source_files_number(&count); },
            [this] {
                size = sizeof(name);
                return DbgLine_get_source_file_name(0, name, &size);
            },
            [] { return Dbg_finish(); },
        };
        steps.insert(steps.end(), std::begin(retrieval), std::end(retrieval));
    }

    // Runs the steps; with `failAt` > 0 the failAt-th allocation inside the libraries fails.
    // A description whose step failed is not carried on (what the failed call left behind is
    // released by Dbg_finish); a retrieval run is, and its later queries must still answer.
    std::vector<uint32_t> Go(long failAt) {
        std::vector<uint32_t> statuses;
        statuses.reserve(steps.size());
        for (size_t i = 0; i < steps.size(); ++i) {
            g_nAllocationsUntilFailure = failAt > 0 ? failAt : 0;
            g_nAllocationsMade = 0;
            bool failedBefore = g_bFailed;
            statuses.push_back(steps[i]());
            g_nAllocationsUntilFailure = 0;
            failAt = failAt > 0 ? std::max(0L, failAt - g_nAllocationsMade) : 0;
            if (g_bFailed && !failedBefore && i < m_nRetrievalStart)
                break;
        }
        return statuses;
    }

    size_t m_nRetrievalStart = 0;
};

TEST(AllocationFailure, EveryFailedAllocationBecomesAStatus) {
    // Failed runs leave modules that the checks complain about; the statuses are what counts.
    Dbg_set_check_handler([](const char *, const char *, unsigned) {});
    qtest::TempDir dir;
    std::string object = dir.File("read.o");
    const std::vector<uint32_t> undisturbed = ApiRun(object, object).Go(0);
    ASSERT_EQ(undisturbed, std::vector<uint32_t>(undisturbed.size(), 0u));

    bool sawNoMemory = false;
    for (long n = 1;; ++n) {
        SCOPED_TRACE(n);
        ApiRun run(dir.File("written.o"), object);
        g_bFailed = false;
        std::vector<uint32_t> statuses;
        EXPECT_NO_THROW(statuses = run.Go(n));
        Dbg_finish();
        _brx_close_file(run.file);
        if (!g_bFailed)
            break; // the run needs fewer than n allocations: each one has failed once
        for (uint32_t status : statuses)
            sawNoMemory |= status == DBG_ERR_NO_MEMORY;
    }
    EXPECT_TRUE(sawNoMemory);
    Dbg_set_check_handler(nullptr);
}

} // namespace
