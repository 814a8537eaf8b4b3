// Source files and their handles. A source handle (DbgSource) is the address of a small cell that
// holds the current source-file object; the DWARF output replaces the object in the cell (its DWARF
// form, then its base name), and every holder of the handle sees the replacement.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CSourceFile {
public:
    explicit CSourceFile(std::u16string name) : m_Name(std::move(name)) {}
    CSourceFile(const CSourceFile &other) = default;
    virtual ~CSourceFile();

    // 0 plain (as registered), 1 COFF, 2 DWARF.
    virtual uint32_t kind() const { return 0; }
    const std::u16string &Name() const { return m_Name; }

protected:
    std::u16string m_Name;
};

class CCoffSourceFile : public CSourceFile {
public:
    explicit CCoffSourceFile(std::u16string name) : CSourceFile(std::move(name)) {}
    explicit CCoffSourceFile(const CSourceFile &other) : CSourceFile(other) {}
    uint32_t kind() const override { return 1; }

    uint32_t fileId = 0;
};

class CDwarfSourceFile : public CSourceFile {
public:
    CDwarfSourceFile(std::u16string name, uint32_t position)
        : CSourceFile(std::move(name)), index(position) {}
    CDwarfSourceFile(const CSourceFile &other, uint32_t position)
        : CSourceFile(other), index(position) {}
    uint32_t kind() const override { return 2; }

    uint32_t fileId = 0;
    uint32_t index = 0; // position of its handle in the source-file list
};

// The cell that a source handle points at.
using CSourceCell = CSourceFile *;

// The registered source files, in registration order; a file's position is its file index.
// Owns every cell and the object in it. Names are never merged: registering a name twice gives
// two files.
class CSourceFileList {
public:
    CSourceFileList() = default;
    ~CSourceFileList() { Clear(); }
    CSourceFileList(const CSourceFileList &) = delete;
    CSourceFileList &operator=(const CSourceFileList &) = delete;

    // Registers a plain source file; returns its cell (the handle).
    CSourceCell *Create(std::u16string name);
    size_t Count() const { return m_Cells.size(); }
    CSourceCell *Cell(size_t position) const { return m_Cells[position]; }
    // Puts `file` into the cell at `position`, destroying the object it held.
    void Replace(size_t position, std::unique_ptr<CSourceFile> file);
    // Turns every plain file into its DWARF form, which knows its position.
    void ConvertToDwarf();
    // Releases every object and every cell.
    void Clear();

private:
    std::vector<CSourceCell *> m_Cells;
};

// The source object behind a handle, or null for a null handle or an empty cell.
inline CSourceFile *SourceOf(const void *handle) {
    return handle ? *static_cast<CSourceCell const *>(handle) : nullptr;
}
