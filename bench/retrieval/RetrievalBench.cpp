// Decoding a 2,000,000-row line table and looking offsets up in it, through the exported
// retrieval functions and, on the same object in the same run, through LLVM 14's DWARFDebugLine.
//
// The tables are written at run time by the toolchains: one generated assembly file of 2,000,000
// instructions, assembled by `llvm-mc-14 -g` (a version 4 table) and by `gcc -g -c` (GNU as, a
// version 5 table). Decoding is measured from the object file's path to a table ready for
// queries, through DbgLine_open_object_and_source_file, against LLVM's context creation and
// parse of the unit's table. Lookups are exact offset lookups of row addresses in a shuffled
// order, against LineTable::lookupAddress: the row through DbgLine_find_row (what lookupAddress
// gives: a row), and the offset query that also copies the row's path. Peak memory is the peak
// resident size of a fresh process of this program over one open, less its size before the open,
// divided by the rows.
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
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kInstructions = 2000000;
constexpr uint32_t kLookups = 1000000;
// What the run must show against LLVM, and the memory an open may take per row.
constexpr double kDecodeTarget = 3.0;
constexpr double kLookupTarget = 2.5;
constexpr double kBytesPerRowTarget = 40.0;

// One table to measure: the object, the name of its source, and what LLVM reads in it.
struct Input {
    Input(const char *label, const char *command, const char *object)
        : label(label), command(command), object(object) {}
    const char *label;
    const char *command; // run in the work directory; makes `object` from big.s
    const char *object;
    std::string path;
    std::string source;
    uint64_t rows = 0;
    std::vector<uint64_t> lookups; // shuffled row addresses
    uint64_t checkAddress = 0;     // a row's address and line, to check one answer
    uint32_t checkLine = 0;
    // Results kept for the summary.
    double quilletDecode = 0, llvmDecode = 0, quilletLookup = 0, quilletFindRow = 0, llvmLookup = 0;
    double bytesPerRow = 0;
};

Input g_Inputs[] = {
    {"llvm-mc -g (version 4)", "llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g big.s -o mc.o",
     "mc.o"},
    {"gcc -g -c (version 5)", "gcc -g -c big.s -o gcc.o", "gcc.o"},
};
std::string g_WorkDirectory;

[[noreturn]] void Fail(const std::string &why) {
    std::fprintf(stderr, "bench_retrieval: %s\n", why.c_str());
    std::exit(1);
}

struct LlvmTable {
    llvm::object::OwningBinary<llvm::object::ObjectFile> binary;
    std::unique_ptr<llvm::DWARFContext> context;
    const llvm::DWARFDebugLine::LineTable *table = nullptr;
};

// LLVM's context over the object and the line table of its first unit: what `llvm-dwarfdump`
// and the symbolizers build before their first query.
bool OpenWithLlvm(const std::string &path, LlvmTable &out) {
    auto binary = llvm::object::ObjectFile::createObjectFile(path);
    if (!binary) {
        llvm::consumeError(binary.takeError());
        return false;
    }
    out.binary = std::move(*binary);
    out.context = llvm::DWARFContext::create(
        *out.binary.getBinary(), llvm::DWARFContext::ProcessDebugRelocations::Ignore, nullptr, "",
        [](llvm::Error e) { llvm::consumeError(std::move(e)); },
        [](llvm::Error e) { llvm::consumeError(std::move(e)); });
    if (out.context->getNumCompileUnits() == 0)
        return false;
    out.table = out.context->getLineTableForUnit(out.context->compile_units().begin()->get());
    return out.table != nullptr;
}

// Instructions of different lengths, one per source line: every line of the file is a row.
void MakeInputs() {
    char pattern[] = "/tmp/quillet-bench-XXXXXX";
    if (!mkdtemp(pattern))
        Fail("no temporary directory");
    g_WorkDirectory = pattern;
    {
        const char *const instructions[] = {"nop",
                                            "movl $1, %eax",
                                            "addq %rax, %rbx",
                                            "leaq 8(%rsp), %rcx",
                                            "xorl %edx, %edx",
                                            "movabsq $0x1122334455667788, %rax",
                                            "pushq %rbp",
                                            "popq %rbp"};
        std::ofstream source(g_WorkDirectory + "/big.s");
        source << ".text\n.globl f\nf:\n";
        std::mt19937 random(12345);
        for (uint32_t i = 0; i < kInstructions; ++i)
            source << "  " << instructions[random() % 8] << "\n";
        if (!source)
            Fail("cannot write the assembly source");
    }
    std::mt19937 random(54321);
    for (Input &input : g_Inputs) {
        std::string command = "cd " + g_WorkDirectory + " && " + input.command;
        if (std::system(command.c_str()) != 0)
            Fail(std::string("cannot make the input: ") + input.command);
        input.path = g_WorkDirectory + "/" + input.object;
        LlvmTable llvm;
        if (!OpenWithLlvm(input.path, llvm))
            Fail(std::string("LLVM cannot read ") + input.object);
        std::vector<uint64_t> addresses;
        for (const llvm::DWARFDebugLine::Row &row : llvm.table->Rows)
            if (!row.EndSequence)
                addresses.push_back(row.Address.Address);
        input.rows = addresses.size();
        const llvm::DWARFDebugLine::Row &middle = llvm.table->Rows[input.rows / 2];
        input.checkAddress = middle.Address.Address;
        input.checkLine = middle.Line;
        for (uint32_t i = 0; i < kLookups; ++i)
            input.lookups.push_back(addresses[random() % addresses.size()]);

        // The name the table gives its source, to open the object by.
        Dbg_init(1);
        DbgSourceHandle *handle = nullptr;
        uint32_t status = DbgLine_open_object_and_source_file(input.path.c_str(), "", &handle);
        char name[4096];
        uint32_t size = sizeof(name);
        if ((status != DBG_ERR_NONE && status != DBG_ERR_SOURCE_NOT_FOUND) ||
            DbgLine_get_source_file_name(0, name, &size) != DBG_ERR_NONE)
            Fail(std::string("Quillet cannot read ") + input.object);
        input.source = name;
        Dbg_finish();
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
// the kernel reports it once it has exited.
int MeasureChild(const char *path, const char *source) {
    long before = ReadStatusKb("VmRSS:");
    Dbg_init(1);
    DbgSourceHandle *handle = nullptr;
    uint32_t status = DbgLine_open_object_and_source_file(path, source, &handle);
    std::printf("%ld\n", before);
    std::fflush(stdout);
    std::_Exit(status == DBG_ERR_NONE ? 0 : 1);
}

double PeakBytesPerRow(const Input &input) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], 1);
        close(pipeFds[0]);
        execl("/proc/self/exe", "bench_retrieval", "--memory-child", input.path.c_str(),
              input.source.c_str(), static_cast<char *>(nullptr));
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
    return double(usage.ru_maxrss - before) * 1024.0 / double(input.rows);
}

// From the object's path to a table ready for every query.
void QuilletDecode(benchmark::State &state, Input *input) {
    for (auto _ : state) {
        Dbg_init(1);
        DbgSourceHandle *handle = nullptr;
        if (DbgLine_open_object_and_source_file(input->path.c_str(), input->source.c_str(),
                                                &handle) != DBG_ERR_NONE)
            state.SkipWithError("open failed");
        benchmark::DoNotOptimize(handle);
        Dbg_finish();
    }
    state.SetItemsProcessed(int64_t(state.iterations() * input->rows));
}

void LlvmDecode(benchmark::State &state, Input *input) {
    for (auto _ : state) {
        LlvmTable llvm;
        if (!OpenWithLlvm(input->path, llvm)) {
            state.SkipWithError("LLVM cannot read the object");
            break;
        }
        benchmark::DoNotOptimize(llvm.table->Rows.size());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * input->rows));
}

// Looks every one of the input's addresses up through `lookup` (handle, address, line and offset
// out; false when nothing is found) on the object's .text, and checks one answer against what
// LLVM reads: every lookup hits its row.
template <class Lookup> void MeasureLookups(benchmark::State &state, Input *input, Lookup lookup) {
    Dbg_init(1);
    uint32_t mode = 7;
    BrxHandle file = 0;
    _brx_open_file(input->path.c_str(), &mode, &file, 0);
    DbgLineSectionHandle *handle = nullptr;
    if (DbgLine_open_line_section(FindSection(file, ".text"), &handle) != DBG_ERR_NONE)
        state.SkipWithError("open failed");
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint64_t address : input->lookups) {
            uint32_t line = 0;
            uint64_t offset = 0;
            found += lookup(handle, address, line, offset) ? line : 0;
        }
    }
    benchmark::DoNotOptimize(found);
    uint32_t line = 0;
    uint64_t offset = 0;
    if (!lookup(handle, input->checkAddress, line, offset) || line != input->checkLine ||
        offset != input->checkAddress)
        state.SkipWithError("a lookup gave the wrong row");
    Dbg_finish();
    _brx_close_file(file);
    state.SetItemsProcessed(int64_t(state.iterations()) * kLookups);
}

// The specified offset query: the row and its path, zero-padded to 257 units.
void QuilletLookup(benchmark::State &state, Input *input) {
    MeasureLookups(
        state, input,
        [](DbgLineSectionHandle *handle, uint64_t address, uint32_t &line, uint64_t &offset) {
            DbgOffsetQuery query{handle, address};
            DbgInstInfo info;
            if (DbgLine_get_inst_info_by_offset(1, &query, &info) != 0)
                return false;
            line = info.line;
            offset = query.offset;
            return true;
        });
}

// The row function a symbolizer uses: the row (address, line, column, file number) like the row
// lookupAddress gives, without the path that every answer of the offset query also writes.
void QuilletFindRow(benchmark::State &state, Input *input) {
    MeasureLookups(
        state, input,
        [](DbgLineSectionHandle *handle, uint64_t address, uint32_t &line, uint64_t &offset) {
            DbgLineRow row;
            if (DbgLine_find_row(handle, address, &row, nullptr) != 0)
                return false;
            line = row.line;
            offset = row.offset;
            return true;
        });
}

void LlvmLookup(benchmark::State &state, Input *input) {
    LlvmTable llvm;
    if (!OpenWithLlvm(input->path, llvm)) {
        state.SkipWithError("LLVM cannot read the object");
        return;
    }
    const llvm::DWARFDebugLine::LineTable *table = llvm.table;
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint64_t address : input->lookups) {
            uint32_t row =
                table->lookupAddress({address, llvm::object::SectionedAddress::UndefSection});
            found += row != table->UnknownRowIndex ? table->Rows[row].Line : 0;
        }
    }
    benchmark::DoNotOptimize(found);
    state.SetItemsProcessed(int64_t(state.iterations()) * kLookups);
}

// Rows or lookups per second of each benchmark, from the reporter's runs.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            auto items = run.counters.find("items_per_second");
            if (items == run.counters.end())
                continue;
            const std::string &name = run.run_name.function_name;
            for (Input &input : g_Inputs) {
                std::string label = std::string("/") + input.object;
                if (name.size() < label.size() ||
                    name.compare(name.size() - label.size(), label.size(), label) != 0)
                    continue;
                double rate = items->second.value;
                if (name.rfind("QuilletDecode", 0) == 0)
                    input.quilletDecode = rate;
                else if (name.rfind("LlvmDecode", 0) == 0)
                    input.llvmDecode = rate;
                else if (name.rfind("QuilletLookup", 0) == 0)
                    input.quilletLookup = rate;
                else if (name.rfind("QuilletFindRow", 0) == 0)
                    input.quilletFindRow = rate;
                else if (name.rfind("LlvmLookup", 0) == 0)
                    input.llvmLookup = rate;
            }
        }
    }
};

} // namespace

int main(int argc, char **argv) {
    if (argc == 4 && std::strcmp(argv[1], "--memory-child") == 0)
        return MeasureChild(argv[2], argv[3]);
    benchmark::Initialize(&argc, argv);
    MakeInputs();
    for (Input &input : g_Inputs) {
        std::string suffix = std::string("/") + input.object;
        benchmark::RegisterBenchmark(("QuilletDecode" + suffix).c_str(), QuilletDecode, &input)
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2.0);
        benchmark::RegisterBenchmark(("LlvmDecode" + suffix).c_str(), LlvmDecode, &input)
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2.0);
        benchmark::RegisterBenchmark(("QuilletLookup" + suffix).c_str(), QuilletLookup, &input)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
        benchmark::RegisterBenchmark(("QuilletFindRow" + suffix).c_str(), QuilletFindRow, &input)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
        benchmark::RegisterBenchmark(("LlvmLookup" + suffix).c_str(), LlvmLookup, &input)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
    }
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (Input &input : g_Inputs)
        input.bytesPerRow = PeakBytesPerRow(input);
    std::system(("rm -rf '" + g_WorkDirectory + "'").c_str());

    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    bool met = true;
    for (const Input &input : g_Inputs) {
        double decode = ratio(input.quilletDecode, input.llvmDecode);
        double lookup = ratio(input.quilletLookup, input.llvmLookup);
        double findRow = ratio(input.quilletFindRow, input.llvmLookup);
        bool inputMet = decode >= kDecodeTarget && findRow >= kLookupTarget &&
                        lookup >= kLookupTarget && input.bytesPerRow > 0 &&
                        input.bytesPerRow <= kBytesPerRowTarget;
        met = met && inputMet;
        std::printf("\n%s: %llu rows, %u offset lookups\n", input.label,
                    static_cast<unsigned long long>(input.rows), kLookups);
        std::printf("  decode (open by name to every query): Quillet %.1f M rows/s, LLVM %.1f M "
                    "rows/s, ratio %.2f (target >= %.1f)\n",
                    input.quilletDecode / 1e6, input.llvmDecode / 1e6, decode, kDecodeTarget);
        std::printf("  exact offset lookups, the row (DbgLine_find_row): Quillet %.2f M/s, LLVM "
                    "lookupAddress %.2f M/s, ratio %.2f (target >= %.1f)\n",
                    input.quilletFindRow / 1e6, input.llvmLookup / 1e6, findRow, kLookupTarget);
        std::printf("  exact offset lookups, the row and its 257-unit path "
                    "(DbgLine_get_inst_info_by_offset): Quillet %.2f M/s, ratio %.2f (target >= "
                    "%.1f)\n",
                    input.quilletLookup / 1e6, lookup, kLookupTarget);
        std::printf("  peak memory of the open: %.1f bytes per row (target <= %.0f)\n",
                    input.bytesPerRow, kBytesPerRowTarget);
    }
    std::printf("\n%s\n", met ? "every target met" : "a target was missed");
    return met ? 0 : 1;
}
