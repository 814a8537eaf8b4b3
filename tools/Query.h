// The query commands of qdbg (lines, addr, line, files): they read line information back
// through the retrieval functions of the C API. Results go to standard output, faults to
// standard error; the result is qdbg's exit code.
#ifndef QDBG_QUERY_H
#define QDBG_QUERY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qdbg {

// Exit codes shared by every command.
enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNotFound = 3 };

// Runs `qdbg COMMAND ARGS...` for one of the query commands.
int RunQuery(const std::string &command, const std::vector<std::string> &args);

// An address as the query commands take it: decimal or 0x-prefixed hexadecimal, with blanks
// around it allowed.
std::optional<uint64_t> ParseAddress(std::string_view text);

} // namespace qdbg

#endif
