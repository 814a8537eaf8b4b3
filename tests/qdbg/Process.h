// Running qdbg and the consumers for the qdbg and installation tests. Built on the shared test
// helpers; what is added here keeps standard output and standard error apart (qdbg's contract
// is results on one, faults on the other) and runs a command in a given directory.
#ifndef QUILLET_TESTS_QDBG_PROCESS_H
#define QUILLET_TESTS_QDBG_PROCESS_H

#include "support/Support.h"

#include <sys/wait.h>
#include <unistd.h>

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

inline bool FileExists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// Quotes a word for the shell.
inline std::string Quote(const std::string &word) {
    std::string quoted = "'";
    for (char c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Runs a shell command line in `directory` (if given) and collects its exit code, standard
// output and standard error.
inline CommandResult RunCommand(const std::string &command, const std::string &directory = "") {
    qtest::TempDir capture;
    std::string line = (directory.empty() ? "" : "cd " + Quote(directory) + " && ") + "(" +
                       command + ") >" + Quote(capture.File("out")) + " 2>" +
                       Quote(capture.File("err"));
    CommandResult result;
    int status = std::system(line.c_str());
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadFile(capture.File("out"));
    result.err = ReadFile(capture.File("err"));
    return result;
}

// A consumer's complaints (see qtest::ConsumerComplaints), where llvm-dwarfdump's verdict
// "No errors." is not one.
inline std::vector<std::string> Complaints(const std::string &text) {
    std::vector<std::string> found;
    for (const std::string &line : qtest::ConsumerComplaints(text))
        if (line != "No errors.")
            found.push_back(line);
    return found;
}

} // namespace qdbgtest

#endif
