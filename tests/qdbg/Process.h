// Running programs and scratch directories for the qdbg and installation tests.
#ifndef QUILLET_TESTS_QDBG_PROCESS_H
#define QUILLET_TESTS_QDBG_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qdbgtest {

struct CommandResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

inline std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Quotes a word for the shell.
inline std::string Quote(const std::string &word) {
    std::string quoted = "'";
    for (char c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// A directory that exists for the life of the object.
class ScratchDir {
  public:
    ScratchDir() {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/quillet-test-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) != nullptr)
            m_Path = buffer.data();
    }
    ~ScratchDir() {
        if (!m_Path.empty())
            std::system(("rm -rf " + Quote(m_Path)).c_str());
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &Path() const { return m_Path; }
    std::string operator/(const std::string &name) const { return m_Path + "/" + name; }

  private:
    std::string m_Path;
};

// Runs a shell command line in `directory` (if given) and collects its exit code, standard
// output and standard error.
inline CommandResult RunCommand(const std::string &command, const std::string &directory = "") {
    ScratchDir capture;
    std::string line = (directory.empty() ? "" : "cd " + Quote(directory) + " && ") + "(" +
                       command + ") >" + Quote(capture / "out") + " 2>" + Quote(capture / "err");
    CommandResult result;
    int status = std::system(line.c_str());
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadFile(capture / "out");
    result.err = ReadFile(capture / "err");
    return result;
}

// The lines of a consumer's output that complain (warning, error, failed), except the two
// notices of LLVM 14 about relocations of machine 50, which it cannot apply.
inline std::vector<std::string> Complaints(const std::string &text) {
    std::vector<std::string> found;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::string lower;
        for (char c : line)
            lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        bool complains = lower.find("warning") != std::string::npos ||
                         lower.find("error") != std::string::npos ||
                         lower.find("failed") != std::string::npos;
        bool allowed = line == "No errors." ||
                       line.find("failed to compute relocation: Unknown") != std::string::npos ||
                       line.find("No available targets are compatible with triple") !=
                           std::string::npos;
        if (complains && !allowed)
            found.push_back(line);
    }
    return found;
}

} // namespace qdbgtest

#endif
