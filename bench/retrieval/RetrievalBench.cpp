// Decoding a 2,000,000-row line table and querying it, through the exported retrieval functions
// and, on the same object in the same run, through LLVM 14's DWARFDebugLine.
//
// The object is made at run time through Quillet's own DWARF output (one code section, four
// source files). Decoding is measured from the object file's path to a table ready for offset
// queries; lookups are exact offset lookups of row addresses in a shuffled order; source
// queries are exact (file, line) lookups. Peak memory is the peak resident size of a fresh
// process of this program over one open, less its size before the open, divided by the rows.
#include <brix/brix.h>
#include <quillet/quillet.h>

#include <benchmark/benchmark.h>

#include <llvm/DebugInfo/DWARF/DWARFContext.h>
#include <llvm/DebugInfo/DWARF/DWARFDebugLine.h>
#include <llvm/Object/ObjectFile.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kRows = 2000000;
constexpr uint32_t kLookups = 1000000;
constexpr uint32_t kFiles = 4;
const char16_t *const kFileNames[kFiles] = {u"/bench/main.s", u"/bench/inc/a.inc",
                                            u"/bench/inc/b.inc", u"/bench/lib/c.s"};
const char *const kFileNames8[kFiles] = {"/bench/main.s", "/bench/inc/a.inc", "/bench/inc/b.inc",
                                         "/bench/lib/c.s"};

struct ExpectedRow {
    uint64_t address;
    uint32_t line;
    uint32_t file;
};

std::string g_Path;
std::vector<ExpectedRow> g_Rows;     // what the object holds, in address order
std::vector<uint64_t> g_LookupOrder; // shuffled row addresses
std::vector<uint32_t> g_SourceOrder; // shuffled row numbers

// Results kept for the summary.
double g_QuilletDecode = 0, g_QuilletDecodeIndexed = 0, g_LlvmDecode = 0;
double g_QuilletLookup = 0, g_LlvmLookup = 0, g_QuilletSource = 0;
double g_BytesPerRow = 0, g_BytesPerRowIndexed = 0;

// Rows with a line that changes every row (the writer keeps no row for an unchanged line),
// small address steps, and the file changing every 1000 rows.
void MakeObject() {
    char pattern[] = "/tmp/quillet-bench-XXXXXX";
    int fd = mkstemp(pattern);
    if (fd >= 0)
        close(fd);
    g_Path = pattern;

    std::mt19937 random(12345);
    g_Rows.reserve(kRows);
    uint64_t address = 0;
    uint32_t lines[kFiles] = {1, 1, 1, 1};
    uint32_t lastLine = 1;
    for (uint32_t i = 0; i < kRows; ++i) {
        uint32_t file = (i / 1000) % kFiles;
        uint32_t line = lines[file] + 1 + random() % 4;
        if (line == lastLine)
            ++line;
        lines[file] = line;
        lastLine = line;
        g_Rows.push_back(ExpectedRow{address, line, file});
        address += 1 + random() % 6;
    }

    Dbg_init(0);
    BrxHandle file = 0, text = 0;
    if (_brx_new_file(g_Path.c_str(), BRX_FORMAT_ELF64, &file) != 0)
        std::abort();
    uint16_t flags = BRX_SECTION_CODE;
    uint32_t alignment = 16, kind = 0;
    BrxAttr attrs[] = {{BRX_KEY_NAME, ".text"},
                       {BRX_KEY_SECTION_FLAGS, &flags},
                       {BRX_KEY_SECTION_ALIGNMENT, &alignment},
                       {BRX_KEY_SECTION_KIND, &kind}};
    if (_brx_create_object(file, BRX_FORMAT_ELF64, BRX_KIND_SECTION, 4, attrs, &text, 0) != 0)
        std::abort();
    std::vector<uint8_t> code(address + 16, 0x90);
    BrxBytes bytes{code.size(), 0, code.data()};
    _brx_set_value(text, BRX_KEY_SECTION_DATA, &bytes, 0);
    const uint16_t versions[3] = {1, 0, 0};
    DbgScope module = nullptr, section = nullptr;
    if (Dbg_open_module_scope(file, 1, 0, 0, 1, versions, versions, u"bench", u"/bench", u"main.s",
                              u"", &module) != 0 ||
        Dbg_open_section_scope(text, &section) != 0)
        std::abort();
    DbgSource sources[kFiles];
    for (uint32_t f = 0; f < kFiles; ++f)
        DbgLine_create_source(kFileNames[f], &sources[f]);
    for (const ExpectedRow &row : g_Rows) {
        DbgLineDesc desc{sources[row.file],           row.line, 0, uint32_t(row.address),
                         uint32_t(row.address >> 32), 0};
        Dbg_create_line(section, &desc);
    }
    if (Dbg_emit() != 0 || _brx_write_file(file) != 0)
        std::abort();
    Dbg_finish();
    _brx_close_file(file);

    g_LookupOrder.reserve(kLookups);
    g_SourceOrder.reserve(kLookups);
    for (uint32_t i = 0; i < kLookups; ++i) {
        uint32_t row = random() % kRows;
        g_LookupOrder.push_back(g_Rows[row].address);
        g_SourceOrder.push_back(random() % kRows);
    }
}

BrxHandle FindSection(BrxHandle file, const char *name) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
    BrxHandle section = 0;
    _brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0);
    return section;
}

long ReadStatusKb(const char *field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    size_t length = std::strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0)
            return std::atol(line.c_str() + length + 1);
    return -1;
}

// Peak memory of one open, measured in a fresh process of this program (so nothing else that
// the benchmark did counts): its resident size before the open, and its peak resident size as
// the kernel reports it once it has exited. `indexed` opens by name (source index built);
// otherwise the caller opens the object and names its section.
int MeasureChild(const char *path, bool indexed) {
    long before = ReadStatusKb("VmRSS:");
    Dbg_init(1);
    uint32_t mode = 7;
    BrxHandle file = 0;
    int status = 0;
    if (indexed) {
        char name[64];
        std::strcpy(name, kFileNames8[0]);
        DbgSourceHandle *handle = nullptr;
        status = DbgLine_open_object_and_source_file(path, name, &handle);
    } else {
        _brx_open_file(path, &mode, &file, 0);
        DbgLineSectionHandle *handle = nullptr;
        status = DbgLine_open_line_section(FindSection(file, ".text"), &handle);
    }
    std::printf("%ld\n", before);
    std::fflush(stdout);
    std::_Exit(status == 0 ? 0 : 1);
}

double PeakBytesPerRow(bool indexed) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], 1);
        close(pipeFds[0]);
        execl("/proc/self/exe", "bench_retrieval", "--memory-child", g_Path.c_str(),
              indexed ? "indexed" : "section", static_cast<char *>(nullptr));
        std::_Exit(2);
    }
    close(pipeFds[1]);
    char text[64] = {};
    ssize_t got = read(pipeFds[0], text, sizeof(text) - 1);
    close(pipeFds[0]);
    int status = 0;
    struct rusage usage {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || got <= 0 || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0)
        return -1;
    long before = std::atol(text);
    return double(usage.ru_maxrss - before) * 1024.0 / kRows;
}

// Open to ready for offset queries: the caller opens the object and names its code section.
void BM_QuilletDecode(benchmark::State &state) {
    for (auto _ : state) {
        Dbg_init(1);
        uint32_t mode = 7;
        BrxHandle file = 0;
        _brx_open_file(g_Path.c_str(), &mode, &file, 0);
        DbgLineSectionHandle *handle = nullptr;
        if (DbgLine_open_line_section(FindSection(file, ".text"), &handle) != 0)
            state.SkipWithError("open failed");
        benchmark::DoNotOptimize(handle);
        Dbg_finish();
        _brx_close_file(file);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kRows);
}

// Open by name to ready for every query, the source index included.
void BM_QuilletDecodeWithSourceIndex(benchmark::State &state) {
    for (auto _ : state) {
        Dbg_init(1);
        char name[64];
        std::strcpy(name, kFileNames8[0]);
        DbgSourceHandle *handle = nullptr;
        if (DbgLine_open_object_and_source_file(g_Path.c_str(), name, &handle) != 0)
            state.SkipWithError("open failed");
        benchmark::DoNotOptimize(handle);
        Dbg_finish();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kRows);
}

void BM_LlvmDecode(benchmark::State &state) {
    for (auto _ : state) {
        auto binary = llvm::object::ObjectFile::createObjectFile(g_Path);
        if (!binary) {
            llvm::consumeError(binary.takeError());
            state.SkipWithError("LLVM cannot open the object");
            break;
        }
        auto context = llvm::DWARFContext::create(
            *binary->getBinary(), llvm::DWARFContext::ProcessDebugRelocations::Ignore, nullptr, "",
            [](llvm::Error e) { llvm::consumeError(std::move(e)); },
            [](llvm::Error e) { llvm::consumeError(std::move(e)); });
        size_t rows = 0;
        for (const auto &unit : context->compile_units())
            if (const llvm::DWARFDebugLine::LineTable *table =
                    context->getLineTableForUnit(unit.get()))
                rows += table->Rows.size();
        benchmark::DoNotOptimize(rows);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kRows);
}

void BM_QuilletLookup(benchmark::State &state) {
    Dbg_init(1);
    uint32_t mode = 7;
    BrxHandle file = 0;
    _brx_open_file(g_Path.c_str(), &mode, &file, 0);
    DbgLineSectionHandle *handle = nullptr;
    DbgLine_open_line_section(FindSection(file, ".text"), &handle);
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint64_t address : g_LookupOrder) {
            DbgOffsetQuery query{handle, address};
            DbgInstInfo info;
            found += DbgLine_get_inst_info_by_offset(1, &query, &info) == 0 ? info.line : 0;
        }
    }
    benchmark::DoNotOptimize(found);
    // Every lookup hits its row: check one against what was written.
    DbgOffsetQuery query{handle, g_Rows[kRows / 2].address};
    DbgInstInfo info;
    if (DbgLine_get_inst_info_by_offset(1, &query, &info) != 0 ||
        info.line != g_Rows[kRows / 2].line || info.file_index != g_Rows[kRows / 2].file)
        state.SkipWithError("a lookup gave the wrong row");
    Dbg_finish();
    _brx_close_file(file);
    state.SetItemsProcessed(int64_t(state.iterations()) * kLookups);
}

void BM_LlvmLookup(benchmark::State &state) {
    auto binary = llvm::object::ObjectFile::createObjectFile(g_Path);
    if (!binary) {
        llvm::consumeError(binary.takeError());
        state.SkipWithError("LLVM cannot open the object");
        return;
    }
    auto context = llvm::DWARFContext::create(
        *binary->getBinary(), llvm::DWARFContext::ProcessDebugRelocations::Ignore, nullptr, "",
        [](llvm::Error e) { llvm::consumeError(std::move(e)); },
        [](llvm::Error e) { llvm::consumeError(std::move(e)); });
    const llvm::DWARFDebugLine::LineTable *table =
        context->getLineTableForUnit(context->compile_units().begin()->get());
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint64_t address : g_LookupOrder) {
            uint32_t row =
                table->lookupAddress({address, llvm::object::SectionedAddress::UndefSection});
            found += row != table->UnknownRowIndex ? table->Rows[row].Line : 0;
        }
    }
    benchmark::DoNotOptimize(found);
    state.SetItemsProcessed(int64_t(state.iterations()) * kLookups);
}

void BM_QuilletBySource(benchmark::State &state) {
    Dbg_init(1);
    DbgSourceHandle *handles[kFiles] = {};
    for (uint32_t f = 0; f < kFiles; ++f) {
        char name[64];
        std::strcpy(name, kFileNames8[f]);
        if (f == 0)
            DbgLine_open_object_and_source_file(g_Path.c_str(), name, &handles[0]);
    }
    // Every file's handle comes from the same open object.
    uint32_t count = 0;
    DbgLine_get_source_files_number(&count);
    static DbgSourceHandle others[kFiles];
    for (uint32_t f = 0; f < kFiles && handles[0]; ++f) {
        others[f] = *handles[0];
        others[f].file_index = others[f].file_index_again = f;
        handles[f] = &others[f];
    }
    uint64_t sum = 0;
    uint32_t misses = 0;
    for (auto _ : state) {
        for (uint32_t row : g_SourceOrder) {
            const ExpectedRow &expected = g_Rows[row];
            DbgSourceQuery query{handles[expected.file], expected.line, 1};
            DbgSourceResult result;
            if (DbgLine_get_inst_info_by_source(0, &query, &result) == 0)
                sum += result.address;
            else
                ++misses;
        }
    }
    benchmark::DoNotOptimize(sum);
    if (misses != 0 || count != kFiles)
        state.SkipWithError("a source query missed its row");
    Dbg_finish();
    state.SetItemsProcessed(int64_t(state.iterations()) * kLookups);
}

// Rows per second of a benchmark, from the reporter's runs.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            auto items = run.counters.find("items_per_second");
            if (items == run.counters.end())
                continue;
            double rate = items->second.value;
            const std::string &name = run.run_name.function_name;
            if (name == "BM_QuilletDecode")
                g_QuilletDecode = rate;
            else if (name == "BM_QuilletDecodeWithSourceIndex")
                g_QuilletDecodeIndexed = rate;
            else if (name == "BM_LlvmDecode")
                g_LlvmDecode = rate;
            else if (name == "BM_QuilletLookup")
                g_QuilletLookup = rate;
            else if (name == "BM_LlvmLookup")
                g_LlvmLookup = rate;
            else if (name == "BM_QuilletBySource")
                g_QuilletSource = rate;
        }
    }
};

} // namespace

BENCHMARK(BM_QuilletDecode)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_QuilletDecodeWithSourceIndex)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_LlvmDecode)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_QuilletLookup)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_LlvmLookup)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_QuilletBySource)->Unit(benchmark::kMillisecond)->Iterations(3);

int main(int argc, char **argv) {
    if (argc == 4 && std::strcmp(argv[1], "--memory-child") == 0)
        return MeasureChild(argv[2], std::strcmp(argv[3], "indexed") == 0);
    benchmark::Initialize(&argc, argv);
    MakeObject();
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    g_BytesPerRow = PeakBytesPerRow(false);
    g_BytesPerRowIndexed = PeakBytesPerRow(true);
    std::remove(g_Path.c_str());

    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    std::printf("\nrows: %u, offset lookups: %u, source queries: %u\n", kRows, kLookups, kLookups);
    std::printf("decode (open to offset queries): Quillet %.1f M rows/s, LLVM %.1f M rows/s, "
                "ratio %.2f (target >= 2)\n",
                g_QuilletDecode / 1e6, g_LlvmDecode / 1e6, ratio(g_QuilletDecode, g_LlvmDecode));
    std::printf("decode with source index: Quillet %.1f M rows/s, ratio to LLVM %.2f\n",
                g_QuilletDecodeIndexed / 1e6, ratio(g_QuilletDecodeIndexed, g_LlvmDecode));
    std::printf("offset lookups: Quillet %.2f M/s, LLVM %.2f M/s, ratio %.2f (target >= 2)\n",
                g_QuilletLookup / 1e6, g_LlvmLookup / 1e6, ratio(g_QuilletLookup, g_LlvmLookup));
    std::printf("line-to-address queries: Quillet %.2f M/s (target >= 1)\n", g_QuilletSource / 1e6);
    std::printf("peak memory per row while decoding: %.1f bytes (target <= 48); with the source "
                "index: %.1f bytes\n",
                g_BytesPerRow, g_BytesPerRowIndexed);
    return 0;
}
