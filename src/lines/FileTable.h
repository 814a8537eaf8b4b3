// The directory and file tables that the line-program decoder builds. Both lists grow across
// every unit of an object: a unit's file number f names entry m_FileBase + f - 1 and its
// directory number d names entry m_DirBase + d (directory 0 is the unit's compilation directory).
#pragma once

#include "platform/CError.h"

#include <brix/brix.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quillet {

// One source file named by the line information: its name and directory as the table gives
// them, and for COFF objects the source-file symbol it came from. The full path (directory
// joined and normalised) is kept beside them while the table's budget for paths lasts, which is
// always for what compilers write; a hostile table whose thousands of files share one long
// directory keeps that directory once and makes a file's path again when it is asked for.
struct FileRecord {
    uint32_t m_nName = 0;      // in the table's strings: the entry's name (a COFF file's path)
    uint32_t m_nDirectory = 0; // position in the directory list (none for a COFF file)
    bool m_bJoined = false;    // the name is joined to its directory
    bool m_bPathKept = false;
    uint32_t m_nModificationTime = 0;
    uint64_t m_nLength = 0;
    BrxHandle m_Symbol = 0;
    std::string m_Path;        // when kept
    std::u16string m_WidePath; // when kept
};

// True when the path stands on its own: it starts with a separator or names a drive.
bool IsAbsolutePath(std::string_view path);

// Joins a directory and a file name: a directory that starts with '/' takes '/', any other '\';
// a directory that already ends with a separator takes none; an absolute name is not joined.
std::string JoinPath(std::string_view directory, std::string_view name);

// Removes "." components and folds "x/.." pairs, on either separator, keeping the separators that
// were written. A ".." with nothing before it to fold is left as it is.
std::string NormalisePath(std::string_view path);

// UTF-8 to UTF-16; malformed sequences become U+FFFD so a name from a corrupted object still
// converts.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

class CFileTable {
public:
    // Starts a new unit: numbers from now on count from the current ends of both lists.
    void BeginUnit();

    // Adds a directory whose path is `name` joined to `base` (either may be empty).
    void AddDirectory(std::string_view base, std::string_view name);

    // Adds a file entry whose directory number is relative to the current unit; fails when the
    // number lies beyond the directory list.
    CError AddDwarfFile(std::string_view name, uint64_t directory, uint64_t modificationTime,
                        uint64_t length);

    // Adds a file by its full name (COFF source-file symbols).
    void AddNamedFile(std::string_view name, BrxHandle symbol);

    // The file list position of the current unit's file number, or -1 when it has no record.
    int32_t FileIndexOfUnitFile(uint64_t fileNumber) const;

    // Null when the index is negative or not below the file count.
    const FileRecord *GetFile(int64_t index) const;

    // A file's full path in UTF-8 and UTF-16: the kept one, or one made in `scratch`.
    const std::string &Path(const FileRecord &file, std::string &scratch) const;
    const std::u16string &WidePath(const FileRecord &file, std::u16string &scratch) const;
    // The path of file `index`; empty when there is none.
    std::string Path(int64_t index) const;

    int32_t FileBase() const { return m_FileBase; }
    uint32_t FileCount() const { return static_cast<uint32_t>(m_Files.size()); }
    uint32_t DirectoryCount() const { return static_cast<uint32_t>(m_Directories.size()); }
    std::string DirectoryPath(uint32_t index) const;

private:
    struct CDirectory {
        uint32_t m_nBase;
        uint32_t m_nName;
    };
    // The index of a string equal to `text` in m_Strings, adding it when needed. Names and
    // directories point into the sections being decoded, so many entries naming one string
    // (a directory of a version 5 table, the compilation directory) share one copy.
    uint32_t Intern(std::string_view text);
    std::string MakePath(const FileRecord &file) const;

    std::deque<FileRecord> m_Files; // a deque keeps the records in place: handles point at them
    std::vector<CDirectory> m_Directories;
    std::vector<std::string> m_Strings;
    std::unordered_map<const char *, uint32_t> m_StringsByPlace;
    uint64_t m_nKeptPathBytes = 0;
    int32_t m_FileBase = 0;
    int32_t m_DirBase = 0;
};

} // namespace quillet
