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
#include <vector>

namespace quillet {

// One source file named by the line information: its full path (directory joined and
// normalised) in 8-bit and UTF-16 form, and for COFF objects the source-file symbol it came from.
struct FileRecord {
    std::string m_Path;
    std::u16string m_WidePath;
    uint32_t m_nDirectory = 0; // position in the directory list
    uint32_t m_nModificationTime = 0;
    uint64_t m_nLength = 0;
    BrxHandle m_Symbol = 0;
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

    void AddDirectory(std::string_view directory);

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

    int32_t FileBase() const { return m_FileBase; }
    uint32_t FileCount() const { return static_cast<uint32_t>(m_Files.size()); }
    uint32_t DirectoryCount() const { return static_cast<uint32_t>(m_Directories.size()); }
    const std::string &Directory(uint32_t index) const { return m_Directories[index]; }

private:
    std::deque<FileRecord> m_Files; // a deque keeps the records in place: handles point at them
    std::vector<std::string> m_Directories;
    int32_t m_FileBase = 0;
    int32_t m_DirBase = 0;
};

} // namespace quillet
