#include "Status.h"

#include <quillet/quillet.h>

namespace qdbg {

namespace {

struct StatusName {
    uint32_t code;
    const char *name;
};

#define QDBG_STATUS(name)                                                                          \
    { name, #name }
const StatusName kStatusNames[] = {
    QDBG_STATUS(DBG_ERR_NONE),
    QDBG_STATUS(DBG_ERR_FAILED),
    QDBG_STATUS(DBG_ERR_NO_CURRENT_SCOPE),
    QDBG_STATUS(DBG_ERR_SCOPE_NOT_OPENED),
    QDBG_STATUS(DBG_ERR_SCOPE_NOT_CLOSED),
    QDBG_STATUS(DBG_ERR_NOT_AN_OBJECT),
    QDBG_STATUS(DBG_ERR_BAD_OBJECT_KIND),
    QDBG_STATUS(DBG_ERR_BAD_PROPERTY),
    QDBG_STATUS(DBG_ERR_BAD_TYPE),
    QDBG_STATUS(DBG_ERR_BAD_PROPERTY_VALUE),
    QDBG_STATUS(DBG_ERR_BAD_PROCEDURE_KIND),
    QDBG_STATUS(DBG_ERR_NO_MEMORY),
    QDBG_STATUS(DBG_ERR_READ_FAILED),
    QDBG_STATUS(DBG_ERR_UNSUPPORTED_FORMAT),
    QDBG_STATUS(DBG_ERR_LINE_REJECTED),
    QDBG_STATUS(DBG_ERR_WRITE_FAILED),
    QDBG_STATUS(DBG_ERR_NO_OBJECT_FORMAT),
    QDBG_STATUS(DBG_ERR_ALREADY_OPEN),
    QDBG_STATUS(DBG_ERR_NULL_PROPERTY_VALUE),
    QDBG_STATUS(DBG_ERR_OBJECT_FILE),
    QDBG_STATUS(DBG_ERR_NO_PREVIOUS_LINE),
    QDBG_STATUS(DBG_ERR_NO_LINE_AT_OFFSET),
    QDBG_STATUS(DBG_ERR_LINE_SECTION_TOO_SHORT),
    QDBG_STATUS(DBG_ERR_OPEN_OBJECT_FILE),
    QDBG_STATUS(DBG_ERR_SOURCE_NOT_FOUND),
    QDBG_STATUS(DBG_ERR_INEXACT_POSITION),
    QDBG_STATUS(DBG_ERR_NO_LINE_AT_POSITION),
    QDBG_STATUS(DBG_ERR_NOT_RETRIEVE_MODE),
    QDBG_STATUS(DBG_ERR_BAD_SOURCE_INDEX),
    QDBG_STATUS(DBG_ERR_NO_HANDLE_MEMORY),
};
#undef QDBG_STATUS

} // namespace

std::string DescribeStatus(uint32_t status) {
    for (const StatusName &entry : kStatusNames)
        if (entry.code == status)
            return "status " + std::to_string(status) + " (" + entry.name + ")";
    return "status " + std::to_string(status);
}

} // namespace qdbg
