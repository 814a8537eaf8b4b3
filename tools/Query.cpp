#include "Query.h"

#include "Status.h"
#include "Text.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace qdbg {

namespace {

void Fail(const std::string &message) {
    std::fprintf(stderr, "qdbg: %s\n", message.c_str());
}

std::string SectionName(BrxHandle section) {
    std::vector<char> buffer(64);
    while (true) {
        uint32_t capacity = static_cast<uint32_t>(buffer.size());
        int32_t result = _brx_get_keyed(section, BRX_KEY_NAME, &capacity, buffer.data(), 0);
        if (result == BRX_OK)
            return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
        if (result != BRX_ERR_BUFFER_TOO_SMALL || buffer.size() > (1u << 20))
            return "?";
        buffer.resize(buffer.size() * 2);
    }
}

// A retrieval run on one object file that qdbg opens itself; the library binds it through the
// first section handed to DbgLine_open_line_section.
class Retrieval {
public:
    ~Retrieval() {
        Dbg_finish();
        if (m_hFile != 0)
            _brx_close_file(m_hFile);
    }

    // Opens the object and loads its line information. Prints the fault and returns false when
    // either fails.
    bool Open(const std::string &path) {
        Dbg_init(1);
        uint32_t mode = 7;
        int32_t result = _brx_open_file(path.c_str(), &mode, &m_hFile, 0);
        if (result != BRX_OK) {
            m_hFile = 0;
            Fail("cannot open " + path + " as an object file (brix result " +
                 std::to_string(result) + ")");
            return false;
        }
        BrxHandle previous = BRX_FIRST;
        while (true) {
            BrxFind find = {previous, BRX_KIND_SECTION, BRX_ANY, nullptr};
            BrxHandle section = 0;
            if (_brx_get_keyed(m_hFile, BRX_KEY_FIND, &find, &section, 0) != BRX_OK)
                break;
            m_Sections.push_back(section);
            previous = section;
        }
        if (m_Sections.empty()) {
            Fail(path + " has no sections");
            return false;
        }
        DbgLineSectionHandle *handle = nullptr;
        DbgStatus status = DbgLine_open_line_section(m_Sections.front(), &handle);
        if (status != DBG_ERR_NONE) {
            Fail("cannot read the line information of " + path + ": " + DescribeStatus(status));
            return false;
        }
        return true;
    }

    const std::vector<BrxHandle> &Sections() const { return m_Sections; }

private:
    BrxHandle m_hFile = 0;
    std::vector<BrxHandle> m_Sections;
};

uint64_t SectionSize(BrxHandle section) {
    uint64_t size = 0;
    if (_brx_get_keyed(section, BRX_KEY_SECTION_SIZE, nullptr, &size, 0) != BRX_OK)
        return 0;
    return size;
}

// Sections that hold no code or data of the program: debugging information, relocations,
// symbol and string tables.
bool IsBookkeeping(BrxHandle section, const std::string &name) {
    uint16_t flags = 0;
    if (_brx_get_keyed(section, BRX_KEY_SECTION_FLAGS, nullptr, &flags, 0) == BRX_OK &&
        (flags & BRX_SECTION_DEBUG) != 0)
        return true;
    static const char *const prefixes[] = {".debug",    ".rel",   ".symtab", ".strtab",
                                           ".shstrtab", ".group", ".note",   ".comment"};
    for (const char *prefix : prefixes)
        if (name.compare(0, std::strlen(prefix), prefix) == 0)
            return true;
    return false;
}

enum class Probe { Row, NoRow, Failed };

// The row that starts exactly at `offset`, if any.
Probe RowAt(DbgLineSectionHandle *handle, uint64_t offset, DbgInstInfo &info, DbgStatus &status) {
    DbgOffsetQuery query = {handle, offset};
    status = DbgLine_get_inst_info_by_offset(1, &query, &info);
    if (status == DBG_ERR_NONE)
        return Probe::Row;
    return status == DBG_ERR_NO_LINE_AT_OFFSET ? Probe::NoRow : Probe::Failed;
}

std::string FileOf(const DbgInstInfo &info) {
    return ToUtf8(info.name, 257);
}

} // namespace

int ListLines(const std::string &object) {
    Retrieval retrieval;
    if (!retrieval.Open(object))
        return kExitFailed;
    // The library answers by exact offset only, so every offset of a section is asked once;
    // each row is found at the offset where it starts.
    for (BrxHandle section : retrieval.Sections()) {
        std::string name = SectionName(section);
        if (IsBookkeeping(section, name))
            continue;
        DbgLineSectionHandle *handle = nullptr;
        DbgStatus status = DbgLine_open_line_section(section, &handle);
        if (status != DBG_ERR_NONE) {
            Fail("section " + name + ": " + DescribeStatus(status));
            return kExitFailed;
        }
        uint64_t size = SectionSize(section);
        for (uint64_t offset = 0; offset <= size; ++offset) {
            DbgInstInfo info;
            Probe probe = RowAt(handle, offset, info, status);
            if (probe == Probe::Failed) {
                Fail("section " + name + " offset " + Hex(offset) + ": " + DescribeStatus(status));
                return kExitFailed;
            }
            if (probe == Probe::Row)
                std::printf("%s %s %u %u %s\n", name.c_str(), Hex(offset).c_str(), info.line,
                            static_cast<unsigned>(info.column), FileOf(info).c_str());
        }
    }
    return kExitOk;
}

int AddressToLine(const std::string &object, const std::string &sectionName, uint64_t offset) {
    Retrieval retrieval;
    if (!retrieval.Open(object))
        return kExitFailed;
    for (BrxHandle section : retrieval.Sections()) {
        if (SectionName(section) != sectionName)
            continue;
        DbgLineSectionHandle *handle = nullptr;
        DbgStatus status = DbgLine_open_line_section(section, &handle);
        if (status != DBG_ERR_NONE) {
            Fail("section " + sectionName + ": " + DescribeStatus(status));
            return kExitFailed;
        }
        // The row that covers the offset is the nearest one at or below it.
        for (uint64_t probe = offset;; --probe) {
            DbgInstInfo info;
            Probe found = RowAt(handle, probe, info, status);
            if (found == Probe::Failed) {
                Fail("section " + sectionName + ": " + DescribeStatus(status));
                return kExitFailed;
            }
            if (found == Probe::Row) {
                std::printf("%s:%u\n", FileOf(info).c_str(), info.line);
                return kExitOk;
            }
            if (probe == 0)
                break;
        }
        std::printf("??:0\n");
        return kExitNotFound;
    }
    Fail(object + " has no section " + sectionName);
    return kExitFailed;
}

int LineToAddress(const std::string &object, const std::string &source, uint32_t line,
                  uint16_t column) {
    Dbg_init(1);
    struct Finish {
        ~Finish() { Dbg_finish(); }
    } finish;
    std::vector<char> name(source.begin(), source.end());
    name.push_back('\0');
    DbgSourceHandle *file = nullptr;
    DbgStatus status = DbgLine_open_object_and_source_file(object.c_str(), name.data(), &file);
    if (status == DBG_ERR_SOURCE_NOT_FOUND) {
        Fail(object + " has no line information for " + source);
        return kExitNotFound;
    }
    if (status != DBG_ERR_NONE) {
        Fail("cannot read the line information of " + object + ": " + DescribeStatus(status));
        return kExitFailed;
    }
    DbgSourceQuery query = {file, line, column};
    DbgSourceResult result = {nullptr, 0};
    status = DbgLine_get_inst_info_by_source(0, &query, &result);
    if (status == DBG_ERR_NONE) {
        // Further records at the same position (the line's code in several places) follow.
        do {
            std::printf("%s %s\n", SectionName(result.handle->section).c_str(),
                        Hex(result.address).c_str());
            status = DbgLine_get_inst_info_by_source(1, &query, &result);
        } while (status == DBG_ERR_NONE);
        if (status == DBG_ERR_INEXACT_POSITION || status == DBG_ERR_NO_LINE_AT_POSITION)
            return kExitOk;
        Fail(DescribeStatus(status));
        return kExitFailed;
    }
    std::string position = source + ":" + std::to_string(line);
    if (status == DBG_ERR_INEXACT_POSITION) {
        DbgOffsetQuery back = {result.handle, result.address};
        DbgInstInfo info;
        std::string nearest = SectionName(result.handle->section) + " " + Hex(result.address);
        if (DbgLine_get_inst_info_by_offset(1, &back, &info) == DBG_ERR_NONE)
            nearest = FileOf(info) + ":" + std::to_string(info.line) + " at " + nearest;
        Fail("no code at " + position + "; the nearest earlier position is " + nearest);
        return kExitNotFound;
    }
    if (status == DBG_ERR_NO_LINE_AT_POSITION) {
        Fail("no code at or before " + position);
        return kExitNotFound;
    }
    Fail(DescribeStatus(status));
    return kExitFailed;
}

int ListFiles(const std::string &object) {
    Retrieval retrieval;
    if (!retrieval.Open(object))
        return kExitFailed;
    uint32_t count = 0;
    DbgStatus status = DbgLine_get_source_files_number(&count);
    if (status != DBG_ERR_NONE) {
        Fail(DescribeStatus(status));
        return kExitFailed;
    }
    for (uint32_t index = 0; index < count; ++index) {
        std::vector<char> buffer(512);
        while (true) {
            uint32_t size = static_cast<uint32_t>(buffer.size());
            status =
                DbgLine_get_source_file_name(static_cast<int32_t>(index), buffer.data(), &size);
            // 38 also means "buffer too small": the index is known to be valid here.
            if (status != DBG_ERR_BAD_SOURCE_INDEX || buffer.size() > (1u << 20))
                break;
            buffer.resize(buffer.size() * 2);
        }
        if (status != DBG_ERR_NONE) {
            Fail("source file " + std::to_string(index) + ": " + DescribeStatus(status));
            return kExitFailed;
        }
        std::printf("%s\n",
                    std::string(buffer.data(), strnlen(buffer.data(), buffer.size())).c_str());
    }
    return kExitOk;
}

} // namespace qdbg
