// Names of the C API's status codes, for qdbg's messages.
#ifndef QDBG_STATUS_H
#define QDBG_STATUS_H

#include <cstdint>
#include <string>

namespace qdbg {

// "status 11 (DBG_ERR_BAD_PROPERTY_VALUE)"
std::string DescribeStatus(uint32_t status);

} // namespace qdbg

#endif
