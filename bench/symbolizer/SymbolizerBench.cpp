// qdbg as a symbolizer, against the tools people use for the same job, on the same input in the
// same run:
//   - 1,000,000 addresses on standard input: `qdbg addr -f` against `addr2line -f` and
//     `llvm-symbolizer-14 --no-inlines`;
//   - every row: `qdbg lines` against `llvm-dwarfdump-14 --debug-line`.
// The input is a generated C program of a few thousand functions compiled with `gcc -g -O2`
// (about 400,000 rows). Generating and compiling it takes about a minute, so it is made once per
// build directory and reused. Each tool runs as a process of its own, its output going to
// /dev/null; the time is the wall time of the process.
#include <brix/brix.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace {

constexpr unsigned kFunctions = 5300;
constexpr unsigned kFiles = 10;
constexpr unsigned kAddresses = 1000000;
// Raise when the generated program changes, so that a cached one is made again.
constexpr unsigned kProgramVersion = 2;

const std::string kCorpus = BENCH_CORPUS_DIR;
const std::string kProgram = kCorpus + "/prog";
const std::string kAddressFile = kCorpus + "/addresses";

std::map<std::string, double> g_Seconds; // by benchmark name, the best run

bool Run(const std::string &command) {
    return std::system(command.c_str()) == 0;
}

// One function of the program: loops, a switch and calls to the two functions before it give
// the optimiser something to schedule, about eighty rows per function.
void WriteFunction(std::ostream &out, unsigned k, std::mt19937 &random) {
    auto c = [&] { return random() % 1000 + 1; };
    out << "int f_" << k << "(int a, int b)\n{\n    int s = a ^ " << c() << ";\n"
        << "    for (int i = 0; i < (b & 15); ++i) {\n"
        << "        s += (i * " << c() << ") ^ (s >> 3);\n"
        << "        if (s & 1)\n"
        << "            s = f_" << (k >= 1 ? k - 1 : 0) << "(s, i) + " << c() << ";\n"
        << "        else\n"
        << "            s -= g_data[(i + " << c() << ") & 63];\n    }\n"
        << "    switch (s & 7) {\n    case 0:\n        s *= " << c() << ";\n        break;\n"
        << "    case 1:\n        s = s / (b | 1);\n        break;\n"
        << "    case 2:\n        s ^= a << 3;\n        break;\n"
        << "    case 3:\n        s += f_" << (k >= 2 ? k - 2 : 0) << "(a, s);\n        break;\n"
        << "    default:\n        s -= " << c() << ";\n    }\n    return s;\n}\n\n";
}

// Generates and compiles the program unless the build directory already holds it.
bool MakeProgram() {
    std::string stamp = kCorpus + "/version";
    {
        std::ifstream in(stamp);
        unsigned version = 0;
        if (in >> version && version == kProgramVersion && access(kProgram.c_str(), R_OK) == 0)
            return true;
    }
    std::fprintf(stderr, "generating and compiling the benchmark program (about a minute)...\n");
    mkdir(kCorpus.c_str(), 0755);
    std::mt19937 random(2024);
    {
        std::ofstream header(kCorpus + "/prog.h");
        header << "extern int g_data[64];\n";
        for (unsigned k = 0; k < kFunctions; ++k)
            header << "int f_" << k << "(int a, int b);\n";
    }
    std::string objects;
    for (unsigned file = 0; file < kFiles; ++file) {
        std::string name = "part" + std::to_string(file);
        std::ofstream source(kCorpus + "/" + name + ".c");
        source << "#include \"prog.h\"\n\n";
        if (file == 0)
            source << "int g_data[64];\n\nint main(int argc, char **argv)\n{\n    (void)argv;\n"
                   << "    return f_" << kFunctions - 1 << "(argc, 3) & 1;\n}\n\n";
        for (unsigned k = file; k < kFunctions; k += kFiles)
            WriteFunction(source, k, random);
        objects += " " + name + ".o";
    }
    // Two compilers at a time: the machine is shared.
    std::string compile = "cd '" + kCorpus + "' && printf '%s\\n'" + objects +
                          " | sed 's/\\.o$//' | xargs -P 2 -I{} gcc -g -O2 -c {}.c -o {}.o && " +
                          "gcc -g -O2" + objects + " -o prog";
    if (!Run(compile))
        return false;
    std::ofstream(stamp) << kProgramVersion << "\n";
    return true;
}

// Addresses spread evenly at random over the program's code (its .text section).
bool MakeAddresses() {
    uint32_t kind = 7;
    BrxHandle file = 0;
    if (_brx_open_file(kProgram.c_str(), &kind, &file, 0) != BRX_OK)
        return false;
    const char *name = ".text";
    BrxFind find = {BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
    BrxHandle text = 0;
    uint64_t address = 0, size = 0;
    bool found = _brx_get_keyed(file, BRX_KEY_FIND, &find, &text, 0) == BRX_OK &&
                 _brx_get_keyed(text, BRX_KEY_SECTION_ADDRESS, nullptr, &address, 0) == BRX_OK &&
                 _brx_get_keyed(text, BRX_KEY_SECTION_SIZE, nullptr, &size, 0) == BRX_OK;
    _brx_close_file(file);
    if (!found || size == 0)
        return false;
    std::mt19937_64 random(7);
    std::string lines;
    char line[32];
    for (unsigned k = 0; k < kAddresses; ++k) {
        std::snprintf(line, sizeof line, "0x%llx\n",
                      static_cast<unsigned long long>(address + random() % size));
        lines += line;
    }
    std::ofstream(kAddressFile) << lines;
    return true;
}

// Runs a program with standard input from a file (or /dev/null) and standard output and error to
// /dev/null; the wall time in seconds, or a negative value when it failed.
double TimeProcess(const std::vector<std::string> &argv, const std::string &input) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // qdbg addr exits with 3 when some address has no row; that is an answer, not a failure.
    bool ok = WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 3);
    return ok ? seconds : -1;
}

void BM_Tool(benchmark::State &state, std::string name, std::vector<std::string> argv,
             bool addresses) {
    for (auto _ : state) {
        double seconds = TimeProcess(argv, addresses ? kAddressFile : "/dev/null");
        if (seconds < 0) {
            state.SkipWithError((argv[0] + " failed").c_str());
            return;
        }
        state.SetIterationTime(seconds);
        double &best = g_Seconds[name];
        if (best == 0 || seconds < best)
            best = seconds;
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * (addresses ? kAddresses : 1));
}

void Register(const char *name, std::vector<std::string> argv, bool addresses) {
    benchmark::RegisterBenchmark(name, BM_Tool, std::string(name), argv, addresses)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
}

double Best(const char *name) {
    auto found = g_Seconds.find(name);
    return found == g_Seconds.end() ? 0 : found->second;
}

} // namespace

int main(int argc, char **argv) {
    if (!MakeProgram() || !MakeAddresses()) {
        std::fprintf(stderr, "cannot make the benchmark program or its addresses\n");
        return 1;
    }
    const std::string qdbg = QDBG_PATH;
    Register("qdbg_addr_f", {qdbg, "addr", "-f", kProgram}, true);
    Register("addr2line_f", {"addr2line", "-f", "-e", kProgram}, true);
    Register("llvm_symbolizer_no_inlines",
             {"llvm-symbolizer-14", "--no-inlines", "--obj=" + kProgram}, true);
    Register("qdbg_lines", {qdbg, "lines", kProgram}, false);
    Register("llvm_dwarfdump_debug_line", {"llvm-dwarfdump-14", "--debug-line", kProgram}, false);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();

    // The size of the input, as llvm-dwarfdump counts it (its row lines start with 0x).
    std::string rows;
    if (FILE *count = popen(
            ("llvm-dwarfdump-14 --debug-line '" + kProgram + "' | grep -c '^0x'").c_str(), "r")) {
        char buffer[64] = {0};
        if (std::fgets(buffer, sizeof buffer, count))
            rows = std::string(buffer, strcspn(buffer, "\n"));
        pclose(count);
    }
    std::printf("\nthe program: %u functions, %s rows (end-of-sequence rows included)\n",
                kFunctions, rows.c_str());
    auto ratio = [](double peer, double ours) { return ours > 0 ? peer / ours : 0.0; };
    double addr = Best("qdbg_addr_f"), lines = Best("qdbg_lines");
    std::printf("%u addresses on standard input (best of 3 runs, wall time):\n", kAddresses);
    std::printf("  qdbg addr -f %.2f s; addr2line -f %.2f s, ratio %.1f (target >= 3); "
                "llvm-symbolizer --no-inlines %.2f s, ratio %.1f (target >= 3)\n",
                addr, Best("addr2line_f"), ratio(Best("addr2line_f"), addr),
                Best("llvm_symbolizer_no_inlines"),
                ratio(Best("llvm_symbolizer_no_inlines"), addr));
    std::printf("every row: qdbg lines %.2f s; llvm-dwarfdump --debug-line %.2f s, ratio %.1f "
                "(target >= 3)\n",
                lines, Best("llvm_dwarfdump_debug_line"),
                ratio(Best("llvm_dwarfdump_debug_line"), lines));
    return 0;
}
