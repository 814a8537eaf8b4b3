#include "Status.h"

#include <quillet/quillet.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace qdbg {

namespace {

struct Meaning {
    uint32_t code;
    const char *text;
};

const Meaning kStatusMeanings[] = {
    {DBG_ERR_NONE, "success"},
    {DBG_ERR_FAILED, "refused"},
    {DBG_ERR_NO_CURRENT_SCOPE, "no scope given and none is current"},
    {DBG_ERR_SCOPE_NOT_OPENED, "no open scope that takes a child of that kind"},
    {DBG_ERR_SCOPE_NOT_CLOSED, "the scope is already closed or still has child scopes"},
    {DBG_ERR_NOT_AN_OBJECT, "not a language object"},
    {DBG_ERR_BAD_OBJECT_KIND, "unknown object kind"},
    {DBG_ERR_BAD_PROPERTY, "a property that the object kind does not have"},
    {DBG_ERR_BAD_TYPE, "a type that does not fit"},
    {DBG_ERR_BAD_PROPERTY_VALUE, "bad property value"},
    {DBG_ERR_BAD_PROCEDURE_KIND, "procedure kind is not 1 or 2"},
    {DBG_ERR_NO_MEMORY, "out of memory"},
    {DBG_ERR_READ_FAILED, "the line information cannot be decoded"},
    {DBG_ERR_UNSUPPORTED_FORMAT, "unsupported object format"},
    {DBG_ERR_LINE_REJECTED, "the scope refused the line entry"},
    {DBG_ERR_WRITE_FAILED, "writing the debugging information failed"},
    {DBG_ERR_NO_OBJECT_FORMAT, "no object file bound (no module scope)"},
    {DBG_ERR_ALREADY_OPEN, "an object file is already bound"},
    {DBG_ERR_NULL_PROPERTY_VALUE, "a property without a value"},
    {DBG_ERR_OBJECT_FILE, "the object file lacks what was asked for"},
    {DBG_ERR_NO_PREVIOUS_LINE, "no row before the first one"},
    {DBG_ERR_NO_LINE_AT_OFFSET, "no row starts at that offset"},
    {DBG_ERR_LINE_SECTION_TOO_SHORT, ".debug_line is too short to hold a line program"},
    {DBG_ERR_OPEN_OBJECT_FILE, "the object file cannot be opened"},
    {DBG_ERR_SOURCE_NOT_FOUND, "the line information does not name that source file"},
    {DBG_ERR_INEXACT_POSITION, "no row at exactly that position"},
    {DBG_ERR_NO_LINE_AT_POSITION, "no further row"},
    {DBG_ERR_NOT_RETRIEVE_MODE, "the library is not in retrieval mode"},
    {DBG_ERR_BAD_SOURCE_INDEX, "no source file of that index, or the buffer is too small"},
    {DBG_ERR_NO_HANDLE_MEMORY, "out of memory for line-section handles"},
};

const Meaning kOpenFailures[] = {
    {BRX_ERR_IS_DIRECTORY, "is a directory"},
    {BRX_ERR_NOT_AN_OBJECT, "not an ELF or COFF object file"},
    {BRX_ERR_UNSUPPORTED,
     "a kind of object file that is not read (an ELF class or byte order other than "
     "32/64-bit and little/big endian, a big-object COFF, an import library)"},
    {BRX_ERR_TRUNCATED_HEADER, "truncated: the file ends inside its file header"},
    {BRX_ERR_SECTION_TABLE_OUTSIDE, "truncated: section headers end past the end of the file"},
    {BRX_ERR_SECTION_OUTSIDE,
     "truncated: a section's contents or relocations end past the end of the file"},
    {BRX_ERR_SYMBOLS_OUTSIDE,
     "truncated: the symbol or string table ends past the end of the file"},
    {BRX_ERR_MALFORMED, "malformed: an index, offset or count in the file points at nothing"},
};

template <size_t N> const char *Lookup(const Meaning (&table)[N], uint32_t code) {
    for (const Meaning &entry : table)
        if (entry.code == code)
            return entry.text;
    return nullptr;
}

// "no line information (no .debug_line section)" when `file` lacks a section that line
// information needs, else empty.
std::string MissingLineSection(BrxHandle file) {
    uint32_t format = 0;
    if (_brx_get_keyed(file, BRX_KEY_FORMAT, nullptr, &format, 0) != BRX_OK)
        return std::string();
    // DWARF line programs are read with the unit that names their directory and files.
    const std::vector<const char *> needed =
        format == BRX_FORMAT_COFF
            ? std::vector<const char *>{".debug$S"}
            : std::vector<const char *>{".debug_line", ".debug_info", ".debug_abbrev"};
    for (const char *name : needed) {
        BrxFind find = {BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
        BrxHandle section = 0;
        if (_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0) != BRX_OK)
            return std::string("no line information (no ") + name + " section)";
    }
    return std::string();
}

} // namespace

std::string DescribeStatus(uint32_t status, const std::string &limit) {
    std::string text = "status " + std::to_string(status);
    const char *meaning = Lookup(kStatusMeanings, status);
    if (!meaning)
        return text;
    return text + " (" + meaning + (limit.empty() ? "" : ": " + limit) + ")";
}

std::string DescribeOpenFailure(const std::string &path, int32_t result, int error) {
    if (result == BRX_ERR_CANNOT_READ)
        return path + ": " + std::strerror(error);
    if (const char *meaning = Lookup(kOpenFailures, static_cast<uint32_t>(result)))
        return path + ": " + meaning;
    return path + ": cannot be opened as an object file (brix result " + std::to_string(result) +
           ")";
}

std::string DescribeLineFailure(const std::string &path, uint32_t status) {
    BrxHandle file = 0;
    int32_t result = _brx_open_file(path.c_str(), nullptr, &file, 0);
    if (result != BRX_OK)
        return DescribeOpenFailure(path, result, errno);
    std::string missing = MissingLineSection(file);
    _brx_close_file(file);
    if (!missing.empty())
        return path + ": " + missing;
    return path + ": cannot read its line information: " + DescribeStatus(status);
}

} // namespace qdbg
