#include "support/Support.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace qtest {

// ---- Files and commands ------------------------------------------------------------------------

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/quillet-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()))
        m_Path = buffer.data();
}

TempDir::~TempDir() {
    if (!m_Path.empty())
        RunCommand("rm -rf '" + m_Path + "'");
}

CommandResult RunCommand(const std::string &command) {
    CommandResult result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return result;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0)
        result.output.append(buffer, n);
    int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::vector<std::string> SplitLines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

std::vector<std::string> ConsumerComplaints(const std::string &output) {
    std::vector<std::string> complaints;
    for (const std::string &line : SplitLines(output)) {
        std::string lower = line;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return char(std::tolower(c)); });
        bool complains = lower.find("warning") != std::string::npos ||
                         lower.find("error") != std::string::npos ||
                         lower.find("failed") != std::string::npos;
        if (!complains)
            continue;
        // LLVM 14 knows no relocation of machine 50; these two notices are expected.
        bool machineNotice =
            lower.find("failed to compute relocation: unknown") != std::string::npos ||
            lower.find("no available targets are compatible with triple") != std::string::npos;
        if (!machineNotice)
            complaints.push_back(line);
    }
    return complaints;
}

bool WriteTextFile(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    return bool(out);
}

std::vector<uint8_t> ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

CommandResult RunConsumer(const std::string &command, const std::string &path) {
    return RunCommand(command + " '" + path + "'");
}

std::string CaseName(const std::string &text, size_t index) {
    std::string name;
    bool gap = false;
    for (char c : text) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
            gap = !name.empty();
            continue;
        }
        if (name.size() >= 60)
            break;
        if (gap)
            name += '_';
        name += c;
        gap = false;
    }
    return name + (name.empty() ? "" : "_") + std::to_string(index);
}

} // namespace qtest
