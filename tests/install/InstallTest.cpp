// Installation: `cmake --install` into a scratch prefix gives the headers, the versioned shared
// libraries, qdbg, the pkg-config files and the CMake package; the README's C programs build
// against them outside the tree: the production example both ways, writing an ELF64 object that
// readelf reads without a complaint, and the retrieval example with -lquillet alone, which
// reads that object back. The public headers compile strictly as C99 and C++17.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <vector>

namespace {

using namespace qdbgtest;

const std::string kBuildDir = QUILLET_BINARY_DIR;
const std::string kSourceDir = QUILLET_SOURCE_DIR;

// A sanitizer build installs sanitized libraries; what links them needs the same runtime.
#if defined(__SANITIZE_ADDRESS__)
const std::string kSanitize = " -fsanitize=address,undefined";
#else
const std::string kSanitize = "";
#endif

// A value of the build's configuration (`KEY:TYPE=value` in its cache); `fallback` when the
// cache has no such key or leaves it empty, as it leaves the directories derived from others.
std::string Configured(const std::string &key, const std::string &fallback) {
    std::string cache = ReadFile(kBuildDir + "/CMakeCache.txt");
    size_t at = cache.find("\n" + key + ":");
    if (at == std::string::npos)
        return fallback;
    at = cache.find('=', at) + 1;
    std::string value = cache.substr(at, cache.find('\n', at) - at);
    return value.empty() ? fallback : value;
}

// The library and manual directories below the prefix, and the project's version.
std::string InstallLibDir() {
    return Configured("CMAKE_INSTALL_LIBDIR", "lib");
}
std::string InstallManDir() {
    return Configured("CMAKE_INSTALL_MANDIR",
                      Configured("CMAKE_INSTALL_DATAROOTDIR", "share") + "/man");
}
std::string ProjectVersion() {
    return Configured("CMAKE_PROJECT_VERSION", "");
}

// The first text of the README between `open` and `close` that holds `marker`, empty when none:
// a ```c block by a call its example makes, or what "it prints `...`" says an example prints.
std::string FromReadme(const std::string &open, const std::string &close,
                       const std::string &marker) {
    std::string readme = ReadFile(kSourceDir + "/README.md");
    for (size_t begin = readme.find(open); begin != std::string::npos;
         begin = readme.find(open, begin)) {
        begin += open.size();
        std::string text = readme.substr(begin, readme.find(close, begin) - begin);
        if (text.find(marker) != std::string::npos)
            return text;
    }
    return "";
}
std::string ReadmeExample(const std::string &marker) {
    return FromReadme("```c\n", "```", marker);
}

const char kProduction[] = "Dbg_emit()";
const char kRetrieval[] = "Dbg_init(1)";

class Installed : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_Prefix = new qtest::TempDir;
        s_Install = new CommandResult(RunCommand("cmake --install " + Quote(kBuildDir) +
                                                 " --prefix " + Quote(s_Prefix->Path())));
    }
    static void TearDownTestSuite() {
        delete s_Install;
        delete s_Prefix;
    }
    void SetUp() override { ASSERT_EQ(s_Install->exitCode, 0) << s_Install->out << s_Install->err; }

    static std::string Prefix(const std::string &path) { return s_Prefix->File(path); }
    static std::string LibDir() { return Prefix(InstallLibDir()); }

    // Runs the program built from the README example in `dir` and checks its object.
    static void RunAndReadObject(const qtest::TempDir &dir, const std::string &program) {
        CommandResult run = RunCommand(Quote(program), dir.Path());
        ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
        CommandResult read =
            RunCommand("readelf -a --debug-dump=info,abbrev,line -W start.o", dir.Path());
        EXPECT_EQ(read.exitCode, 0);
        EXPECT_TRUE(Complaints(read.out + read.err).empty()) << read.out << read.err;
        EXPECT_NE(read.out.find("ELF64"), std::string::npos);
        EXPECT_NE(read.out.find("DW_TAG_subprogram"), std::string::npos);
        EXPECT_NE(read.out.find("start.s"), std::string::npos);
    }

    static qtest::TempDir *s_Prefix;
    static CommandResult *s_Install;
};

qtest::TempDir *Installed::s_Prefix = nullptr;
CommandResult *Installed::s_Install = nullptr;

// The project's version is stated once in the build; the libraries' file names and sonames,
// the package files and `qdbg --version` all carry it.
TEST_F(Installed, LibrariesPackagesAndQdbgCarryTheProjectVersion) {
    const std::string version = ProjectVersion();
    ASSERT_FALSE(version.empty());
    const std::string major = version.substr(0, version.find('.'));
    for (const std::string name : {"quillet", "brix"}) {
        std::string lib = LibDir() + "/lib" + name;
        CommandResult links =
            RunCommand("readlink " + Quote(lib + ".so") + " " + Quote(lib + ".so." + major));
        EXPECT_EQ(links.out,
                  "lib" + name + ".so." + major + "\nlib" + name + ".so." + version + "\n");
        CommandResult dynamic = RunCommand("readelf -d " + Quote(lib + ".so." + version));
        EXPECT_NE(dynamic.out.find("Library soname: [lib" + name + ".so." + major + "]"),
                  std::string::npos)
            << dynamic.out;
    }
    CommandResult packages = RunCommand("PKG_CONFIG_PATH=" + Quote(LibDir() + "/pkgconfig") +
                                        " pkg-config --modversion quillet brix");
    EXPECT_EQ(packages.out, version + "\n" + version + "\n") << packages.err;
    CommandResult qdbg = RunCommand(Quote(Prefix("bin/qdbg")) + " --version");
    EXPECT_EQ(qdbg.exitCode, 0);
    EXPECT_EQ(qdbg.out, "qdbg (Quillet) " + version + "\n");
}

// The manual page is made from `qdbg --help`: it renders without a warning, and every line of
// the help text (the NAME summary aside, which the formatter refills) is on it as written, so
// that each command the synopsis names is there and nothing was lost to the formatter's escapes.
TEST_F(Installed, ManualPageRendersTheHelpText) {
    std::string page = Prefix(InstallManDir() + "/man1/qdbg.1");
    CommandResult rendered = RunCommand("groff -man -Tutf8 -ww -P -cbou " + Quote(page));
    ASSERT_EQ(rendered.exitCode, 0) << rendered.err;
    EXPECT_EQ(rendered.err, "");
    EXPECT_NE(rendered.out.find("Quillet " + ProjectVersion()), std::string::npos);
    // The summary that whatis and apropos index.
    EXPECT_NE(ReadFile(page).find(".SH NAME\nqdbg \\- describe "), std::string::npos);

    auto trim = [](const std::string &line) {
        size_t begin = line.find_first_not_of(' ');
        return begin == std::string::npos
                   ? std::string()
                   : line.substr(begin, line.find_last_not_of(' ') - begin + 1);
    };
    std::set<std::string> onPage;
    std::istringstream pageText(rendered.out);
    for (std::string line; std::getline(pageText, line);)
        onPage.insert(trim(line));

    CommandResult help = RunCommand(Quote(Prefix("bin/qdbg")) + " --help");
    ASSERT_EQ(help.exitCode, 0);
    std::istringstream helpText(help.out);
    std::string section;
    std::vector<std::string> commands;
    for (std::string line; std::getline(helpText, line);) {
        if (!line.empty() && line[0] != ' ')
            section = line;
        if (section == "NAME" || trim(line).empty())
            continue;
        EXPECT_EQ(onPage.count(trim(line)), 1u) << "not on the manual page: " << line;
        if (section == "SYNOPSIS" && line != section)
            commands.push_back(trim(line));
    }
    // The synopsis of build, lines, addr, line, files, --help and --version was among them.
    EXPECT_EQ(commands.size(), 7u);
}

TEST_F(Installed, ReadmeExamplesBuildThroughPkgConfigAndWithTheRunPathAlone) {
    qtest::TempDir dir;
    std::string example = ReadmeExample(kProduction);
    ASSERT_FALSE(example.empty());
    WriteFile(dir.File("example.c"), example);
    std::string pkgConfig = "PKG_CONFIG_PATH=" + Quote(LibDir() + "/pkgconfig") + " pkg-config";
    CommandResult flags = RunCommand(pkgConfig + " --cflags --libs quillet");
    ASSERT_EQ(flags.exitCode, 0) << flags.err;
    // quillet.pc requires brix.pc: both libraries come with one name.
    EXPECT_NE(flags.out.find("-lquillet"), std::string::npos) << flags.out;
    EXPECT_NE(flags.out.find("-lbrix"), std::string::npos) << flags.out;
    CommandResult compiled = RunCommand(
        "cc -std=c11 -Wall -Wextra -Wpedantic -Werror" + kSanitize + " example.c $(" + pkgConfig +
            " --cflags --libs quillet) -Wl,-rpath," + Quote(LibDir()) + " -o example",
        dir.Path());
    ASSERT_EQ(compiled.exitCode, 0) << compiled.out << compiled.err;
    RunAndReadObject(dir, dir.File("example"));

    // A program that calls only Quillet links with -lquillet alone; started with nothing but its
    // run path, it finds libbrix.so through libquillet.so's own.
    std::string retrieval = ReadmeExample(kRetrieval);
    ASSERT_FALSE(retrieval.empty());
    WriteFile(dir.File("where.c"), retrieval);
    CommandResult linked =
        RunCommand("cc -std=c11 -Wall -Wextra -Wpedantic -Werror" + kSanitize + " where.c -I" +
                       Quote(Prefix("include")) + " -L" + Quote(LibDir()) +
                       " -lquillet -Wl,-rpath," + Quote(LibDir()) + " -o where",
                   dir.Path());
    ASSERT_EQ(linked.exitCode, 0) << linked.out << linked.err;
    CommandResult found = RunCommand("env -u LD_LIBRARY_PATH ./where", dir.Path());
    EXPECT_EQ(found.exitCode, 0) << found.err;
    EXPECT_EQ(found.out, FromReadme("it prints `", "`", "") + "\n");
}

TEST_F(Installed, ReadmeExampleBuildsThroughFindPackage) {
    qtest::TempDir dir;
    WriteFile(dir.File("example.c"), ReadmeExample(kProduction));
    WriteFile(dir.File("CMakeLists.txt"),
              "cmake_minimum_required(VERSION 3.16)\n"
              "project(consumer C)\n"
              "find_package(Quillet 1.0 REQUIRED)\n"
              "if(NOT TARGET Quillet::brix)\n"
              "  message(FATAL_ERROR \"Quillet::brix is missing\")\n"
              "endif()\n"
              "add_executable(example example.c)\n"
              "set_target_properties(example PROPERTIES C_STANDARD 11)\n"
              "target_compile_options(example PRIVATE -Wall -Wextra -Werror)\n"
              "target_link_libraries(example PRIVATE Quillet::quillet)\n");
    CommandResult configured =
        RunCommand("cmake -S . -B build -G Ninja -DCMAKE_PREFIX_PATH=" + Quote(s_Prefix->Path()) +
                       " -DCMAKE_C_FLAGS=" + Quote(kSanitize),
                   dir.Path());
    ASSERT_EQ(configured.exitCode, 0) << configured.out << configured.err;
    CommandResult built = RunCommand("cmake --build build", dir.Path());
    ASSERT_EQ(built.exitCode, 0) << built.out << built.err;
    RunAndReadObject(dir, dir.File("build/example"));
}

struct HeaderCase {
    const char *name;
    const char *compiler;
    const char *standard;
    const char *includes;
};

// Each header alone (it includes what it needs) and both in either order (the handle type they
// share is declared once, which C99 requires); C++ sees both.
const HeaderCase kHeaderCases[] = {
    {"C99Quillet", "cc", "c99", "#include <quillet/quillet.h>\n"},
    {"C99Brix", "cc", "c99", "#include <brix/brix.h>\n"},
    {"C99QuilletThenBrix", "cc", "c99", "#include <quillet/quillet.h>\n#include <brix/brix.h>\n"},
    {"C99BrixThenQuillet", "cc", "c99", "#include <brix/brix.h>\n#include <quillet/quillet.h>\n"},
    {"Cxx17QuilletThenBrix", "c++", "c++17",
     "#include <quillet/quillet.h>\n#include <brix/brix.h>\n"},
};

class PublicHeaders : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(PublicHeaders, CompileWithPedanticWarningsAsErrors) {
    const HeaderCase &c = GetParam();
    qtest::TempDir dir;
    // Every record and function pointer type is used, so that nothing in the headers escapes
    // the compiler.
    std::string source = std::string(c.includes) +
                         "int use(void);\n"
                         "int use(void) {\n"
                         "    int n = 0;\n"
                         "#ifdef QUILLET_QUILLET_H\n"
                         "    DbgLineDesc line = {0, 1, 0, 0, 0, 0};\n"
                         "    DbgInstInfo info;\n"
                         "    DbgStatus (*emit)(void) = Dbg_emit;\n"
                         "    info.line = line.line;\n"
                         "    n += (int)info.line + (emit != 0);\n"
                         "#endif\n"
                         "#ifdef BRIX_BRIX_H\n"
                         "    BrxBytes bytes = {0, 0, 0};\n"
                         "    int32_t (*write)(BrxHandle) = _brx_write_file;\n"
                         "    n += (int)bytes.count + (write != 0);\n"
                         "#endif\n"
                         "    return n;\n"
                         "}\n";
    std::string file = std::string("header.") + (std::string(c.compiler) == "cc" ? "c" : "cpp");
    WriteFile(dir.File(file), source);
    CommandResult compiled = RunCommand(std::string(c.compiler) + " -std=" + c.standard +
                                            " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I" +
                                            Quote(kSourceDir + "/include") + " " + file,
                                        dir.Path());
    EXPECT_EQ(compiled.exitCode, 0) << c.standard << "\n" << c.includes << compiled.err;
}

INSTANTIATE_TEST_SUITE_P(Table, PublicHeaders, ::testing::ValuesIn(kHeaderCases),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
