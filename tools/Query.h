// The query commands of qdbg: they read line information back through the retrieval functions
// of the C API. Each returns qdbg's exit code and prints results to stdout, faults to stderr.
#ifndef QDBG_QUERY_H
#define QDBG_QUERY_H

#include <cstdint>
#include <string>

namespace qdbg {

// Exit codes shared by every command.
enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNotFound = 3 };

int ListLines(const std::string &object);
int AddressToLine(const std::string &object, const std::string &section, uint64_t offset);
int LineToAddress(const std::string &object, const std::string &source, uint32_t line,
                  uint16_t column);
int ListFiles(const std::string &object);

} // namespace qdbg

#endif
