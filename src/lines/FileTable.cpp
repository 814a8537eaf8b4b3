#include "lines/FileTable.h"

namespace quillet {

namespace {

// Full paths kept beside the file records, UTF-8 and UTF-16 together: far more than any
// compiler's table needs, far less than a table of thousands of files in one long directory.
constexpr uint64_t kKeptPathBytes = uint64_t(4) << 20;

bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

} // namespace

bool IsAbsolutePath(std::string_view path) {
    return (!path.empty() && IsSeparator(path[0])) || (path.size() > 1 && path[1] == ':');
}

std::string JoinPath(std::string_view directory, std::string_view name) {
    if (directory.empty() || IsAbsolutePath(name))
        return std::string(name);
    std::string path(directory);
    if (!IsSeparator(path.back()))
        path += directory[0] == '/' ? '/' : '\\';
    path += name;
    return path;
}

std::string NormalisePath(std::string_view path) {
    // Each kept component remembers where it starts in the output (its separator included), so
    // folding "x/.." is a truncation: one pass, no quadratic rescans of long names.
    std::string out;
    out.reserve(path.size());
    std::vector<size_t> starts; // output offset of each kept component's leading separator
    std::vector<bool> foldable; // false for a kept ".." and for the leading (root or drive) part
    size_t i = 0;
    // The first component keeps no leading separator of its own; a root separator or a drive
    // stays at the front and is never folded away.
    while (i <= path.size()) {
        size_t sep = i;
        while (sep < path.size() && !IsSeparator(path[sep]))
            ++sep;
        std::string_view component = path.substr(i, sep - i);
        bool first = (i == 0);
        if (!first && component == ".") {
            // Dropped together with the separator that led to it.
        } else if (!first && component == ".." && !starts.empty() && foldable.back()) {
            out.resize(starts.back());
            starts.pop_back();
            foldable.pop_back();
        } else {
            size_t start = out.size();
            if (!first)
                out += path[i - 1];
            out.append(component.data(), component.size());
            starts.push_back(start);
            bool isRoot = first && (component.empty() || component.back() == ':');
            foldable.push_back(!isRoot && component != ".." && component != ".");
        }
        if (sep >= path.size())
            break;
        i = sep + 1;
    }
    return out;
}

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        uint8_t c = static_cast<uint8_t>(text[i]);
        uint32_t code = 0xfffd;
        size_t extra = 0;
        if (c < 0x80) {
            code = c;
        } else if ((c & 0xe0) == 0xc0) {
            code = c & 0x1f;
            extra = 1;
        } else if ((c & 0xf0) == 0xe0) {
            code = c & 0x0f;
            extra = 2;
        } else if ((c & 0xf8) == 0xf0) {
            code = c & 0x07;
            extra = 3;
        }
        size_t j = 1;
        for (; j <= extra; ++j) {
            if (i + j >= text.size() || (static_cast<uint8_t>(text[i + j]) & 0xc0) != 0x80)
                break;
            code = (code << 6) | (static_cast<uint8_t>(text[i + j]) & 0x3f);
        }
        if (j <= extra || (c >= 0x80 && extra == 0)) {
            code = 0xfffd;
            j = 1;
        }
        i += j;
        if (code >= 0x10000 && code <= 0x10ffff) {
            code -= 0x10000;
            out += static_cast<char16_t>(0xd800 + (code >> 10));
            out += static_cast<char16_t>(0xdc00 + (code & 0x3ff));
        } else {
            out += static_cast<char16_t>(code > 0x10ffff ? 0xfffd : code);
        }
    }
    return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
    // Unit by unit, as the library converts every other wide string: a surrogate half is
    // written as three bytes of its own.
    std::string out;
    out.reserve(text.size() * 3);
    for (char16_t unit : text) {
        uint32_t c = unit;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xc0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3f));
        } else {
            out += static_cast<char>(0xe0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
            out += static_cast<char>(0x80 | (c & 0x3f));
        }
    }
    return out;
}

void CFileTable::BeginUnit() {
    m_FileBase = static_cast<int32_t>(m_Files.size());
    m_DirBase = static_cast<int32_t>(m_Directories.size());
}

uint32_t CFileTable::Intern(std::string_view text) {
    // Found by where the text stands, confirmed by what it says: a place seen before may hold
    // other text now (a caller's buffer reused between units).
    auto found = m_StringsByPlace.find(text.data());
    if (found != m_StringsByPlace.end() && m_Strings[found->second] == text)
        return found->second;
    uint32_t index = static_cast<uint32_t>(m_Strings.size());
    m_Strings.emplace_back(text);
    m_StringsByPlace[text.data()] = index;
    return index;
}

void CFileTable::AddDirectory(std::string_view base, std::string_view name) {
    m_Directories.push_back(CDirectory{Intern(base), Intern(name)});
}

std::string CFileTable::DirectoryPath(uint32_t index) const {
    const CDirectory &d = m_Directories[index];
    return JoinPath(m_Strings[d.m_nBase], m_Strings[d.m_nName]);
}

std::string CFileTable::MakePath(const FileRecord &file) const {
    const std::string &name = m_Strings[file.m_nName];
    return file.m_bJoined ? NormalisePath(JoinPath(DirectoryPath(file.m_nDirectory), name)) : name;
}

CError CFileTable::AddDwarfFile(std::string_view name, uint64_t directory,
                                uint64_t modificationTime, uint64_t length) {
    uint64_t position = static_cast<uint64_t>(m_DirBase) + directory;
    if (directory >= m_Directories.size() || position >= m_Directories.size())
        return kFailed;
    FileRecord record;
    record.m_nName = Intern(name);
    record.m_nDirectory = static_cast<uint32_t>(position);
    record.m_bJoined = true;
    record.m_nModificationTime = static_cast<uint32_t>(modificationTime);
    record.m_nLength = length;
    // The path is kept when its UTF-8 and UTF-16 forms (three bytes per byte at most) fit in
    // what is left of the budget.
    const CDirectory &d = m_Directories[position];
    uint64_t longest = m_Strings[d.m_nBase].size() + m_Strings[d.m_nName].size() + name.size() + 2;
    if (m_nKeptPathBytes + 3 * longest <= kKeptPathBytes) {
        record.m_Path = MakePath(record);
        record.m_WidePath = Utf8ToUtf16(record.m_Path);
        record.m_bPathKept = true;
        m_nKeptPathBytes += 3 * record.m_Path.size();
    }
    m_Files.push_back(std::move(record));
    return kOk;
}

void CFileTable::AddNamedFile(std::string_view name, BrxHandle symbol) {
    FileRecord record;
    record.m_nName = Intern(name);
    record.m_Path = std::string(name);
    record.m_WidePath = Utf8ToUtf16(name);
    record.m_bPathKept = true;
    record.m_Symbol = symbol;
    m_Files.push_back(std::move(record));
}

const std::string &CFileTable::Path(const FileRecord &file, std::string &scratch) const {
    if (file.m_bPathKept)
        return file.m_Path;
    scratch = MakePath(file);
    return scratch;
}

const std::u16string &CFileTable::WidePath(const FileRecord &file, std::u16string &scratch) const {
    if (file.m_bPathKept)
        return file.m_WidePath;
    scratch = Utf8ToUtf16(MakePath(file));
    return scratch;
}

std::string CFileTable::Path(int64_t index) const {
    const FileRecord *file = GetFile(index);
    std::string scratch;
    return file ? Path(*file, scratch) : std::string();
}

int32_t CFileTable::FileIndexOfUnitFile(uint64_t fileNumber) const {
    if (fileNumber == 0)
        return -1;
    uint64_t position = static_cast<uint64_t>(m_FileBase) + fileNumber - 1;
    if (position >= m_Files.size())
        return -1;
    return static_cast<int32_t>(position);
}

const FileRecord *CFileTable::GetFile(int64_t index) const {
    if (index < 0 || static_cast<uint64_t>(index) >= m_Files.size())
        return nullptr;
    return &m_Files[static_cast<size_t>(index)];
}

} // namespace quillet
