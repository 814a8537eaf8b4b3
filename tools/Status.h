// What the C API's statuses and brix's results mean, in the words of qdbg's messages.
#ifndef QDBG_STATUS_H
#define QDBG_STATUS_H

#include <brix/brix.h>

#include <cstdint>
#include <string>

namespace qdbg {

// "status 11 (bad property value: register numbers are 0 to 524)": the status, its meaning and,
// when the caller knows it, the limit that was broken.
std::string DescribeStatus(uint32_t status, const std::string &limit = std::string());

// "x.o: is a directory": why _brx_open_file refused `path`, with the system's reason (`error`,
// the errno that brix kept) where the system refused.
std::string DescribeOpenFailure(const std::string &path, int32_t result, int error);

// Why the line information of the object `path` could not be read (the library answered
// `status`): the file cannot be opened, a section that line information needs is missing ("x.o:
// no line information (no .debug_line section)"), or else the status and its meaning.
std::string DescribeLineFailure(const std::string &path, uint32_t status);

} // namespace qdbg

#endif
