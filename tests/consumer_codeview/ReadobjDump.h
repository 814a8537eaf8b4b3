// What llvm-readobj-14 prints about CodeView, parsed back into plain values: per symbol section
// its subsection kinds, symbol records (kind and fields), file checksums and line tables; the
// type records; and from --sections --relocations --symbols --expand-relocs the sections,
// relocations and section-definition records.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace cvdump {

struct Symbol {
    std::string record;                        // e.g. "GlobalProcSym"
    std::map<std::string, std::string> fields; // "DisplayName" -> "main"
    std::vector<std::string> entries;          // the lines of an "Entries [" list
};

struct Checksum {
    std::string filename;
    uint32_t stringOffset = 0;
    std::string kind;  // "MD5 (0x1)"
    std::string bytes; // lowercase hex without spaces
};

struct LineSegment {
    std::string filename;
    uint32_t checksumOffset = 0;
    std::vector<std::pair<uint32_t, uint32_t>> lines; // (offset, line)
};

struct LineTable {
    std::string linkageName;
    uint32_t codeSize = 0;
    std::vector<LineSegment> segments;
};

struct SymbolSection {
    int sectionNumber = 0;
    std::vector<uint32_t> subsections;
    std::vector<Symbol> symbols;
    std::vector<Checksum> checksums;
    std::vector<LineTable> lineTables;
};

struct TypeRecord {
    uint32_t index = 0;
    std::map<std::string, std::string> fields;
};

struct CodeViewDump {
    std::vector<SymbolSection> symbolSections;
    std::vector<TypeRecord> types;
};

CodeViewDump ParseCodeView(const std::string &output);

struct Relocation {
    uint64_t offset = 0;
    uint32_t type = 0;
    std::string symbol;
};

struct Section {
    int number = 0;
    std::string name;
    std::vector<std::string> characteristics;
    std::vector<Relocation> relocations;
    // From the section symbol's section-definition record.
    std::string selection;
    std::string associatedSection;
};

std::vector<Section> ParseSections(const std::string &output);

} // namespace cvdump
