#include "ObjectLines.h"

#include "Status.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qdbg {

namespace {

// A name that brix answers into a caller's buffer (sections, symbols), asked again with a
// larger buffer while it does not fit.
std::string NameOf(BrxHandle object, uint32_t key) {
    std::vector<char> buffer(256);
    while (true) {
        uint32_t capacity = static_cast<uint32_t>(buffer.size());
        int32_t result = _brx_get_keyed(object, key, &capacity, buffer.data(), 0);
        if (result == BRX_OK)
            return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
        if (result != BRX_ERR_BUFFER_TOO_SMALL || buffer.size() > (1u << 24))
            return std::string();
        buffer.resize(buffer.size() * 2);
    }
}

template <class T> T Query(BrxHandle object, uint32_t key) {
    T value{};
    if (_brx_get_keyed(object, key, nullptr, &value, 0) != BRX_OK)
        return T{};
    return value;
}

bool IsBookkeeping(BrxHandle section, const std::string &name) {
    if ((Query<uint16_t>(section, BRX_KEY_SECTION_FLAGS) & BRX_SECTION_DEBUG) != 0)
        return true;
    static const char *const kPrefixes[] = {".debug",    ".rel",   ".symtab", ".strtab",
                                            ".shstrtab", ".group", ".note",   ".comment"};
    for (const char *prefix : kPrefixes)
        if (name.compare(0, std::strlen(prefix), prefix) == 0)
            return true;
    return false;
}

char Folded(char c) {
    if (c == '\\')
        return '/';
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

} // namespace

bool NamesSource(std::string_view path, std::string_view typed) {
    if (typed.empty() || typed.size() > path.size())
        return false;
    size_t start = path.size() - typed.size();
    for (size_t i = 0; i < typed.size(); ++i)
        if (Folded(path[start + i]) != Folded(typed[i]))
            return false;
    return start == 0 || Folded(path[start - 1]) == '/' || Folded(typed[0]) == '/';
}

ObjectLines::~ObjectLines() {
    Dbg_finish();
    if (m_hFile != 0)
        _brx_close_file(m_hFile);
}

bool ObjectLines::Open(const std::string &path, std::string &error) {
    Dbg_init(1);
    uint32_t kind = 7;
    int32_t result = _brx_open_file(path.c_str(), &kind, &m_hFile, 0);
    if (result != BRX_OK) {
        error = DescribeOpenFailure(path, result, errno);
        m_hFile = 0;
        return false;
    }
    m_bLinked = kind != 0;
    for (BrxHandle previous = BRX_FIRST;;) {
        BrxFind find = {previous, BRX_KIND_SECTION, BRX_ANY, nullptr};
        BrxHandle handle = 0;
        if (_brx_get_keyed(m_hFile, BRX_KEY_FIND, &find, &handle, 0) != BRX_OK)
            break;
        Section section;
        section.handle = handle;
        section.name = NameOf(handle, BRX_KEY_NAME);
        section.address = Query<uint64_t>(handle, BRX_KEY_SECTION_ADDRESS);
        section.size = Query<uint64_t>(handle, BRX_KEY_SECTION_SIZE);
        section.code = (Query<uint16_t>(handle, BRX_KEY_SECTION_FLAGS) & BRX_SECTION_CODE) != 0;
        section.bookkeeping = IsBookkeeping(handle, section.name);
        m_SectionByHandle[handle] = m_Sections.size();
        m_Sections.push_back(std::move(section));
        previous = handle;
    }
    if (m_Sections.empty()) {
        error = path + ": no line information (no sections)";
        return false;
    }
    // The first line section binds the object and reads all of its line information.
    DbgStatus status = Lines(0, m_Sections[0].lines);
    if (status != DBG_ERR_NONE) {
        error = DescribeLineFailure(path, status);
        return false;
    }
    uint32_t files = 0;
    if (DbgLine_get_source_files_number(&files) == DBG_ERR_NONE)
        m_FileNames.resize(files);
    return true;
}

size_t ObjectLines::FindSection(std::string_view name) const {
    for (size_t i = 0; i < m_Sections.size(); ++i)
        if (m_Sections[i].name == name)
            return i;
    return kNone;
}

size_t ObjectLines::SectionAt(uint64_t address) {
    if (!m_bAddressIndex) {
        for (size_t i = 0; i < m_Sections.size(); ++i) {
            const Section &s = m_Sections[i];
            if (s.bookkeeping || s.address == 0)
                continue;
            // Sections can share addresses (thread-local zero fill overlays the data after it);
            // code is what a symbolizer is asked about.
            (s.code ? m_CodeByAddress : m_OtherByAddress)
                .Add(s.address, s.address + s.size, uint32_t(i));
        }
        m_CodeByAddress.Build();
        m_OtherByAddress.Build();
        m_bAddressIndex = true;
    }
    if (const uint32_t *code = m_CodeByAddress.Find(address))
        return *code;
    if (const uint32_t *other = m_OtherByAddress.Find(address))
        return *other;
    return kNone;
}

DbgStatus ObjectLines::Lines(size_t section, DbgLineSectionHandle *&handle) {
    Section &s = m_Sections[section];
    if (s.lines == nullptr) {
        DbgStatus status = DbgLine_open_line_section(s.handle, &s.lines);
        if (status != DBG_ERR_NONE)
            return status;
    }
    handle = s.lines;
    return DBG_ERR_NONE;
}

const std::string *ObjectLines::FileName(uint32_t index) {
    if (index >= m_FileNames.size())
        return nullptr;
    std::optional<std::string> &name = m_FileNames[index];
    if (!name) {
        std::vector<char> buffer(512);
        DbgStatus status;
        while (true) {
            uint32_t size = static_cast<uint32_t>(buffer.size());
            status = DbgLine_get_source_file_name(int32_t(index), buffer.data(), &size);
            // 38 also says "buffer too small"; the index is known to be valid here.
            if (status != DBG_ERR_BAD_SOURCE_INDEX || buffer.size() > (1u << 24))
                break;
            buffer.resize(buffer.size() * 2);
        }
        if (status != DBG_ERR_NONE)
            return nullptr;
        name = std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
    }
    return &*name;
}

void ObjectLines::BuildFunctionIndex() {
    m_bFunctionIndex = true;
    BrxFind findTable = {BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BrxHandle table = 0;
    if (_brx_get_keyed(m_hFile, BRX_KEY_FIND, &findTable, &table, 0) != BRX_OK)
        return;
    struct Function {
        size_t section;
        uint64_t start, size;
        uint32_t binding;
        uint32_t name; // also the symbol's position among the function symbols
    };
    std::vector<Function> functions;
    const uint32_t functionType = BRX_SYMBOL_FUNCTION;
    for (BrxHandle previous = BRX_FIRST;;) {
        BrxFindSymbol find = {previous, BRX_KEY_SYMBOL_TYPE, &functionType};
        BrxHandle symbol = 0;
        if (_brx_get_keyed(table, BRX_KEY_FIND_SYMBOL, &find, &symbol, 0) != BRX_OK)
            break;
        previous = symbol;
        auto section = m_SectionByHandle.find(Query<BrxHandle>(symbol, BRX_KEY_SYMBOL_SECTION));
        if (section == m_SectionByHandle.end())
            continue; // undefined or absolute
        std::string name = NameOf(symbol, BRX_KEY_SYMBOL_NAME);
        if (name.empty())
            continue;
        functions.push_back({section->second, Query<uint64_t>(symbol, BRX_KEY_SYMBOL_OFFSET),
                             Query<uint64_t>(symbol, BRX_KEY_SYMBOL_SIZE),
                             Query<uint32_t>(symbol, BRX_KEY_SYMBOL_BINDING),
                             uint32_t(m_FunctionNames.size())});
        m_FunctionNames.push_back(std::move(name));
    }
    // By section and start. Of several names at one start the index answers the one added
    // last, so they go from the least to the most telling: sized before unsized, global before
    // local, and the first in the symbol table before later ones.
    std::sort(functions.begin(), functions.end(), [](const Function &a, const Function &b) {
        if (a.section != b.section)
            return a.section < b.section;
        if (a.start != b.start)
            return a.start < b.start;
        if ((a.size != 0) != (b.size != 0))
            return a.size == 0;
        if (a.binding != b.binding)
            return a.binding < b.binding;
        return a.name > b.name;
    });
    for (size_t i = 0; i < functions.size(); ++i) {
        const Function &f = functions[i];
        uint64_t end = f.start + f.size;
        if (f.size == 0) {
            // No size given (hand-written assembly, most COFF objects): the function runs to
            // the next function of its section or to the section's end.
            end = m_Sections[f.section].size;
            for (size_t k = i + 1; k < functions.size() && functions[k].section == f.section; ++k)
                if (functions[k].start > f.start) {
                    end = functions[k].start;
                    break;
                }
        }
        m_Sections[f.section].functions.Add(f.start, end, f.name);
    }
    for (Section &s : m_Sections)
        s.functions.Build();
}

std::string_view ObjectLines::FunctionAt(size_t section, uint64_t offset) {
    if (!m_bFunctionIndex)
        BuildFunctionIndex();
    if (const uint32_t *name = m_Sections[section].functions.Find(offset))
        return m_FunctionNames[*name];
    // No function symbol holds it (a stripped symbol table): the DWARF subprograms may.
    DbgLineSectionHandle *handle = nullptr;
    if (Lines(section, handle) != DBG_ERR_NONE)
        return std::string_view();
    m_Subprogram.resize(std::max<size_t>(m_Subprogram.size(), 256));
    while (true) {
        uint32_t size = static_cast<uint32_t>(m_Subprogram.size());
        DbgStatus status =
            DbgLine_find_function(handle, offset, m_Subprogram.data(), &size, nullptr, nullptr);
        if (status == DBG_ERR_NONE)
            return std::string_view(m_Subprogram.data(),
                                    strnlen(m_Subprogram.data(), m_Subprogram.size()));
        // 38 says the buffer is too small and how large it must be.
        if (status != DBG_ERR_BAD_SOURCE_INDEX || size <= m_Subprogram.size())
            return std::string_view();
        m_Subprogram.resize(size);
    }
}

} // namespace qdbg
