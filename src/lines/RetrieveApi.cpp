// The exported retrieval functions. Each answers 37 unless the library is in retrieval mode
// with a reader, then hands the call to the reader.
#include "frame/LibraryState.h"
#include "lines/Retrieve.h"
#include "platform/ApiGuard.h"

#include <quillet/quillet.h>

namespace {

constexpr uint32_t kRetrieveMode = 1;

CBaseRetrieve *Reader() {
    LibraryState &state = State();
    return state.mode == kRetrieveMode ? state.reader.get() : nullptr;
}

} // namespace

extern "C" {

QUILLET_API DbgStatus DbgLine_open_line_section(BrxHandle section,
                                                DbgLineSectionHandle **out_handle) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->OpenLineSection(section, out_handle) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_open_object_and_source_file(const char *object_name,
                                                          const char *source_name,
                                                          DbgSourceHandle **out_handle) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->OpenObjectAndSourceFile(object_name, source_name, out_handle)
                  : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_inst_info_by_offset(uint32_t flag, DbgOffsetQuery *query,
                                                      DbgInstInfo *info) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->InstInfoByOffset(flag, query, info) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_inst_info_by_source(uint32_t flag, const DbgSourceQuery *query,
                                                      DbgSourceResult *result) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->InstInfoBySource(flag, query, result) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_source_files_number(uint32_t *count) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->SourceFileCount(count) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_source_file_name(int32_t index, char *buffer,
                                                   uint32_t *size) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->SourceFileName(index, buffer, size) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_row_count(DbgLineSectionHandle *handle, uint64_t *count) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->RowCount(handle, count) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_get_rows(DbgLineSectionHandle *handle, uint64_t first,
                                       DbgLineRow *rows, uint64_t *count) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->GetRows(handle, first, rows, count) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_find_row(DbgLineSectionHandle *handle, uint64_t offset,
                                       DbgLineRow *row, uint64_t *index) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->FindRow(handle, offset, row, index) : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

QUILLET_API DbgStatus DbgLine_find_function(DbgLineSectionHandle *handle, uint64_t offset,
                                            char *buffer, uint32_t *size, uint64_t *start,
                                            uint64_t *end) try {
    CBaseRetrieve *reader = Reader();
    return reader ? reader->FindFunction(handle, offset, buffer, size, start, end)
                  : DBG_ERR_NOT_RETRIEVE_MODE;
} catch (...) {
    return StatusOfFailedAllocation();
}

} // extern "C"
