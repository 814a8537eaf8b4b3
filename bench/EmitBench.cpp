// Emission benchmark: an assembler's whole use of Quillet for one large module, timed from the
// first brix call to the written file. The module has 2,000,000 line entries, 200,000 code and
// data labels and 20,000 procedures over 64 code sections at full size, and is also run at 1/10
// and 1/100 of that. Each run happens in a fresh child process, so that its peak memory can be
// measured (peak resident size minus the size at the start of the child).
//
// Targets for ELF64 at full size: at most 0.25 microseconds and 80 bytes per line entry; each
// tenfold step of the module may cost at most about twelve times as much.
#include <benchmark/benchmark.h>
#include <brix/brix.h>
#include <quillet/quillet.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kCodeSections = 64;
constexpr uint32_t kFullProcedures = 20000;
constexpr uint32_t kLinesPerProcedure = 100; // 2,000,000 line entries at full size
constexpr uint32_t kCodeLabelsPerProcedure = 5;
constexpr uint32_t kDataLabelsPerProcedure = 5; // with the code labels, 200,000 labels
constexpr uint32_t kSourceFiles = 8;
constexpr uint32_t kInstructionSize = 4;

struct RunResult {
    double seconds = 0;
    double describeSeconds = 0, emitSeconds = 0, writeSeconds = 0;
    double peakBytes = 0;
    uint64_t lineEntries = 0;
    bool ok = false;
};

// Sizes in /proc/self/status, in bytes.
double StatusBytes(const char *field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    size_t length = std::strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0 && line[length] == ':')
            return 1024.0 * std::atof(line.c_str() + length + 1);
    return 0;
}

#define BENCH_CHECK(call)                                                                          \
    do {                                                                                           \
        if ((call) != 0) {                                                                         \
            std::fprintf(stderr, "bench_emit: %s failed\n", #call);                                \
            return false;                                                                          \
        }                                                                                          \
    } while (0)

BrxHandle MakeSymbol(BrxHandle table, int format, const char *name, BrxHandle section,
                     uint64_t offset, uint32_t binding, uint32_t type) {
    uint32_t storage = 0;
    const BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name},        {BRX_KEY_SYMBOL_STORAGE, &storage},
                             {BRX_KEY_SYMBOL_BINDING, &binding}, {BRX_KEY_SYMBOL_TYPE, &type},
                             {BRX_KEY_SYMBOL_SECTION, &section}, {BRX_KEY_SYMBOL_OFFSET, &offset}};
    BrxHandle symbol = 0;
    if (_brx_create_object(table, format, BRX_KIND_SYMBOL, 6, attrs, &symbol, 0) != 0)
        return 0;
    return symbol;
}

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Describes, emits and writes the module with `procedures` procedures; the time of each phase
// goes into `phases` (describe, including the brix symbols; Dbg_emit; the file write).
bool DescribeEmitWrite(const std::string &path, const std::vector<std::u16string> &sources,
                       int format, uint32_t procedures, RunResult &phases) {
    Clock::time_point begin = Clock::now();
    BrxHandle file = 0, table = 0, data = 0;
    BENCH_CHECK(_brx_new_file(path.c_str(), format, &file));
    std::vector<BrxHandle> code(kCodeSections);
    uint32_t proceduresPerSection = (procedures + kCodeSections - 1) / kCodeSections;
    uint64_t procedureSize = uint64_t(kLinesPerProcedure) * kInstructionSize;
    std::vector<uint8_t> zeros(proceduresPerSection * procedureSize);
    for (uint32_t s = 0; s < kCodeSections; ++s) {
        std::string name = ".text" + std::to_string(s);
        uint16_t flags = BRX_SECTION_CODE;
        uint32_t alignment = 16;
        const BrxAttr attrs[] = {{BRX_KEY_NAME, name.c_str()},
                                 {BRX_KEY_SECTION_FLAGS, &flags},
                                 {BRX_KEY_SECTION_ALIGNMENT, &alignment}};
        BENCH_CHECK(_brx_create_object(file, format, BRX_KIND_SECTION, 3, attrs, &code[s], 0));
        BrxBytes bytes = {zeros.size(), 0, zeros.data()};
        BENCH_CHECK(_brx_set_value(code[s], BRX_KEY_SECTION_DATA, &bytes, 0));
    }
    {
        uint16_t flags = 0;
        uint32_t alignment = 8;
        const BrxAttr attrs[] = {{BRX_KEY_NAME, ".data"},
                                 {BRX_KEY_SECTION_FLAGS, &flags},
                                 {BRX_KEY_SECTION_ALIGNMENT, &alignment}};
        BENCH_CHECK(_brx_create_object(file, format, BRX_KIND_SECTION, 3, attrs, &data, 0));
        std::vector<uint8_t> bytes(uint64_t(procedures) * kDataLabelsPerProcedure * 8);
        BrxBytes contents = {bytes.size(), 0, bytes.data()};
        BENCH_CHECK(_brx_set_value(data, BRX_KEY_SECTION_DATA, &contents, 0));
    }
    BrxFind find = {BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BENCH_CHECK(_brx_get_keyed(file, BRX_KEY_FIND, &find, &table, 0));

    Dbg_init(0);
    const uint16_t version[3] = {1, 0, 0};
    DbgScope module = nullptr, scope = nullptr;
    BENCH_CHECK(Dbg_open_module_scope(file, 1, 0, 0, 1, version, version, u"bench_emit", u"/bench",
                                      u"bench.s", u"bench_emit", &module));
    std::vector<DbgSource> files(sources.size());
    for (size_t f = 0; f < sources.size(); ++f)
        BENCH_CHECK(DbgLine_create_source(sources[f].c_str(), &files[f]));
    DbgType data4 = nullptr, procType = nullptr;
    BENCH_CHECK(Dbg_base_type(5, &data4));
    BENCH_CHECK(Dbg_procedure_type(data4, 1, &procType));
    const int32_t data8Code = 7;

    char name[32];
    uint32_t line = 1;
    uint32_t procedure = 0;
    uint64_t dataOffset = 0;
    for (uint32_t s = 0; s < kCodeSections && procedure < procedures; ++s) {
        BENCH_CHECK(Dbg_set_current_scope(module));
        BENCH_CHECK(Dbg_open_section_scope(code[s], &scope));
        for (uint32_t p = 0; p < proceduresPerSection && procedure < procedures; ++p, ++procedure) {
            uint64_t start = p * procedureSize, end = start + procedureSize;
            std::snprintf(name, sizeof name, "proc%u", procedure);
            BrxHandle entry = MakeSymbol(table, format, name, code[s], start, BRX_BINDING_GLOBAL,
                                         BRX_SYMBOL_FUNCTION);
            BENCH_CHECK(entry == 0);
            const DbgEntryList entries = {&entry, 1};
            const uint32_t returnRegister = 1;
            const DbgObjectProp props[] = {{DBG_PROP_ENTRY_LIST, &entries},
                                           {DBG_PROP_START, &start},
                                           {DBG_PROP_END, &end},
                                           {DBG_PROP_PROC_TYPE, &procType},
                                           {DBG_PROP_RETURN_REGISTER, &returnRegister}};
            DbgObject object = nullptr;
            BENCH_CHECK(Dbg_create_object(DBG_OBJ_PROCEDURE, props, 5, nullptr, &object));
            BENCH_CHECK(Dbg_open_procedure_scope(object, &scope));
            for (uint32_t k = 0; k < kCodeLabelsPerProcedure; ++k) {
                std::snprintf(name, sizeof name, "L%u_%u", procedure, k);
                BrxHandle symbol = MakeSymbol(table, format, name, code[s], start + 8 + k * 16,
                                              BRX_BINDING_LOCAL, 0);
                BENCH_CHECK(symbol == 0);
                const DbgObjectProp label[] = {{DBG_PROP_SYMBOL, &symbol}};
                BENCH_CHECK(Dbg_create_object(DBG_OBJ_CODE_LABEL, label, 1, nullptr, &object));
            }
            for (uint32_t k = 0; k < kDataLabelsPerProcedure; ++k, dataOffset += 8) {
                std::snprintf(name, sizeof name, "D%u_%u", procedure, k);
                BrxHandle symbol =
                    MakeSymbol(table, format, name, data, dataOffset, BRX_BINDING_LOCAL, 0);
                BENCH_CHECK(symbol == 0);
                const DbgObjectProp label[] = {{DBG_PROP_SYMBOL, &symbol},
                                               {DBG_PROP_BASE_TYPE, &data8Code}};
                BENCH_CHECK(Dbg_create_object(DBG_OBJ_DATA_LABEL, label, 2, nullptr, &object));
            }
            DbgSource source = files[procedure % files.size()];
            for (uint32_t k = 0; k < kLinesPerProcedure; ++k) {
                uint64_t address = start + uint64_t(k) * kInstructionSize;
                // Mostly consecutive lines, with a jump now and then, as real code has.
                line += (k % 16 == 15) ? 7 : 1;
                const DbgLineDesc desc = {source,
                                          line,
                                          0,
                                          static_cast<uint32_t>(address),
                                          static_cast<uint32_t>(address >> 32),
                                          0};
                BENCH_CHECK(Dbg_create_line(nullptr, &desc));
            }
            BENCH_CHECK(Dbg_close_current_scope());
        }
    }
    phases.describeSeconds = Since(begin);
    begin = Clock::now();
    BENCH_CHECK(Dbg_emit());
    phases.emitSeconds = Since(begin);
    begin = Clock::now();
    BENCH_CHECK(_brx_write_file(file));
    phases.writeSeconds = Since(begin);
    Dbg_finish();
    _brx_close_file(file);
    return true;
}

// Runs one describe-emit-write in a fresh child and collects its time and peak memory.
RunResult RunInChild(const std::string &directory, int format, uint32_t procedures) {
    RunResult result;
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0)
        return result;
    pid_t child = fork();
    if (child == 0) {
        close(pipeEnds[0]);
        std::vector<std::u16string> sources;
        for (uint32_t f = 0; f < kSourceFiles; ++f) {
            std::string path = directory + "/file" + std::to_string(f) + ".s";
            std::ofstream(path) << "; source file " << f << "\n";
            sources.push_back(std::u16string(path.begin(), path.end()));
        }
        std::string output = directory + "/bench.o";
        double baseline = StatusBytes("VmRSS");
        RunResult out;
        Clock::time_point begin = Clock::now();
        bool ok = DescribeEmitWrite(output, sources, format, procedures, out);
        out.seconds = Since(begin);
        out.ok = ok;
        out.peakBytes = StatusBytes("VmHWM") - baseline;
        out.lineEntries = uint64_t(procedures) * kLinesPerProcedure;
        std::remove(output.c_str());
        ssize_t written = write(pipeEnds[1], &out, sizeof out);
        _exit(written == static_cast<ssize_t>(sizeof out) && ok ? 0 : 1);
    }
    close(pipeEnds[1]);
    RunResult received;
    bool complete = child > 0 && read(pipeEnds[0], &received, sizeof received) ==
                                     static_cast<ssize_t>(sizeof received);
    close(pipeEnds[0]);
    int status = 0;
    if (child > 0)
        waitpid(child, &status, 0);
    if (complete && WIFEXITED(status) && WEXITSTATUS(status) == 0)
        result = received;
    return result;
}

std::string g_Directory;
// Best (shortest) time and largest peak per (format, divisor), for the summary.
std::map<std::pair<int, int>, RunResult> g_Results;

void BM_Emit(benchmark::State &state, int format) {
    int divisor = static_cast<int>(state.range(0));
    uint32_t procedures = kFullProcedures / divisor;
    RunResult worst, best;
    best.seconds = 1e30;
    for (auto _ : state) {
        RunResult run = RunInChild(g_Directory, format, procedures);
        if (!run.ok) {
            state.SkipWithError("the child run failed (see its message above)");
            return;
        }
        state.SetIterationTime(run.seconds);
        if (run.seconds < best.seconds)
            best = run;
        if (run.peakBytes > worst.peakBytes)
            worst = run;
    }
    best.peakBytes = worst.peakBytes;
    g_Results[{format, divisor}] = best;
    double lines = static_cast<double>(best.lineEntries);
    state.counters["line_entries"] = lines;
    state.counters["us_per_line"] = best.seconds * 1e6 / lines;
    state.counters["bytes_per_line"] = best.peakBytes / lines;
    state.counters["describe_ms"] = best.describeSeconds * 1e3;
    state.counters["emit_ms"] = best.emitSeconds * 1e3;
    state.counters["write_ms"] = best.writeSeconds * 1e3;
}

void Register(const char *name, int format) {
    benchmark::RegisterBenchmark(name, BM_Emit, format)
        ->Arg(100)
        ->Iterations(5)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(name, BM_Emit, format)
        ->Arg(10)
        ->Iterations(3)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(name, BM_Emit, format)
        ->Arg(1)
        ->Iterations(3)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

// The figures the targets are about, and whether they are met.
int PrintSummary() {
    int failures = 0;
    std::printf("\nEmission, describe + emit + write; times are the best run of each size, "
                "peak memory the largest\n");
    std::printf("%-7s %9s %10s %10s %10s %10s %10s %12s %10s\n", "format", "entries", "time ms",
                "describe", "emit", "write", "us/entry", "bytes/entry", "step cost");
    for (int format : {BRX_FORMAT_ELF64, BRX_FORMAT_COFF}) {
        const char *name = format == BRX_FORMAT_ELF64 ? "elf64" : "coff";
        double previous = 0;
        for (int divisor : {100, 10, 1}) {
            auto found = g_Results.find({format, divisor});
            if (found == g_Results.end())
                continue;
            const RunResult &r = found->second;
            double perEntry = r.seconds * 1e6 / r.lineEntries;
            double bytes = r.peakBytes / r.lineEntries;
            double step = previous > 0 ? r.seconds / previous : 0;
            std::printf("%-7s %9llu %10.1f %10.1f %10.1f %10.1f %10.3f %12.1f %9s\n", name,
                        static_cast<unsigned long long>(r.lineEntries), r.seconds * 1e3,
                        r.describeSeconds * 1e3, r.emitSeconds * 1e3, r.writeSeconds * 1e3,
                        perEntry, bytes,
                        step > 0 ? (std::to_string(step).substr(0, 5) + "x").c_str() : "-");
            if (divisor != 100 && step > 12.0) {
                std::printf("        FAIL: the tenfold step costs %.1fx (target: at most ~12x)\n",
                            step);
                ++failures;
            }
            if (format == BRX_FORMAT_ELF64 && divisor == 1) {
                if (perEntry > 0.25) {
                    std::printf("        FAIL: %.3f us per line entry (target: at most 0.25)\n",
                                perEntry);
                    ++failures;
                }
                if (bytes > 80) {
                    std::printf("        FAIL: %.1f bytes per line entry (target: at most 80)\n",
                                bytes);
                    ++failures;
                }
            }
            previous = r.seconds;
        }
    }
    std::printf(failures == 0 ? "All emission targets met.\n" : "%d emission target(s) missed.\n",
                failures);
    return failures;
}

} // namespace

int main(int argc, char **argv) {
    const char *tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/quillet-bench-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        std::fprintf(stderr, "bench_emit: cannot make a temporary directory\n");
        return 1;
    }
    g_Directory = buffer.data();
    Register("emit/elf64", BRX_FORMAT_ELF64);
    Register("emit/coff", BRX_FORMAT_COFF);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    int failures = PrintSummary();
    for (uint32_t f = 0; f < kSourceFiles; ++f)
        std::remove((g_Directory + "/file" + std::to_string(f) + ".s").c_str());
    rmdir(g_Directory.c_str());
    return failures == 0 ? 0 : 1;
}
