// The source files of one CodeView emission. Every file that a section's or procedure's line
// entries name is listed once, in the order the string-table pass first meets it, and keeps that
// position in the object's one checksum table: line blocks in every symbol section, COMDAT
// sections' own included, name a file by the offset of its record there. The driver owns the
// tables for the duration of the emission; the scope steps reach them through the library state.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

struct CCodeViewTables {
    struct File {
        std::string path;      // as written in the string table (UTF-8)
        uint32_t stringOffset; // of the path in the string table
        const void *source;    // the first source-file record (handle cell) that names it
    };
    std::vector<File> files;
    // The position of a file by its path, and by every source-file record that names it.
    std::unordered_map<std::string, uint32_t> byPath;
    std::unordered_map<const void *, uint32_t> bySource;
    uint32_t nextStringOffset = 0; // 0 until the empty string at offset 0 is written
    // Numbers the symbols made where a lines subsection begins with no symbol of its own.
    uint32_t nextLineSymbol = 1;
};

// The tables of the emission that is running, or null outside the CodeView driver.
CCodeViewTables *ActiveCodeViewTables();
