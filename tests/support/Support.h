// Shared helpers for every test program: temporary directories, running a command and reading
// what it prints, and the complaints of a consumer tool. Nothing here calls a library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qtest {

// A fresh directory under the system's temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return m_Path; }
    // The path of `name` inside the directory.
    std::string File(const std::string &name) const { return m_Path + "/" + name; }

private:
    std::string m_Path;
};

struct CommandResult {
    int exitCode = -1;
    std::string output; // standard output and standard error, interleaved
};

// Runs `command` through the shell.
CommandResult RunCommand(const std::string &command);

// The lines of a consumer's output that contain "warning", "error" or "failed" (any case),
// except LLVM's two notices about machine 50, whose relocations it does not know.
std::vector<std::string> ConsumerComplaints(const std::string &output);

std::vector<std::string> SplitLines(const std::string &text);
bool WriteTextFile(const std::string &path, const std::string &text);
std::vector<uint8_t> ReadFileBytes(const std::string &path);

// Runs a consumer command on `path` (for example "readelf --debug-dump=info").
CommandResult RunConsumer(const std::string &command, const std::string &path);

// A parameterised test's name made from a case's text: its letters and digits, words joined by
// '_', at most about 60 characters, then the case's index (which keeps names unique).
std::string CaseName(const std::string &text, size_t index);

} // namespace qtest
