// Builders of .debug_line, .debug_info and .debug_abbrev bytes for the retrieval tests, so each
// test states the program it decodes opcode by opcode, and the placer that puts its sequences.
#pragma once

#include "dwarf/DwarfSection.h"
#include "lines/LineSection.h"
#include "support/Bytes.h"

#include <quillet/quillet.h>

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// Rows of the row functions compare field by field and print readably in test messages.
inline bool operator==(const DbgLineRow &a, const DbgLineRow &b) {
    return a.offset == b.offset && a.end == b.end && a.line == b.line && a.column == b.column &&
           a.file_index == b.file_index && a.flags == b.flags;
}
inline std::ostream &operator<<(std::ostream &os, const DbgLineRow &r) {
    return os << "{0x" << std::hex << r.offset << "-0x" << r.end << std::dec << " line " << r.line
              << " col " << r.column << " file " << r.file_index << " flags " << r.flags << "}";
}

namespace retrievaltest {

using qtest::Bytes;
using qtest::PutString;
using qtest::Text;

// `size` little-endian bytes of v; bytes past the eighth are 0.
inline void PutU(Bytes &b, uint64_t v, unsigned size) {
    for (unsigned i = 0; i < size; ++i)
        b.push_back(i < 8 ? static_cast<uint8_t>(v >> (8 * i)) : 0);
}
inline void PutULEB(Bytes &b, uint64_t v) {
    do {
        uint8_t byte = v & 0x7f;
        v >>= 7;
        b.push_back(static_cast<uint8_t>(byte | (v ? 0x80 : 0)));
    } while (v);
}
inline void PutSLEB(Bytes &b, int64_t v) {
    for (;;) {
        uint8_t byte = v & 0x7f;
        v >>= 7;
        bool done = (v == 0 && !(byte & 0x40)) || (v == -1 && (byte & 0x40));
        b.push_back(static_cast<uint8_t>(byte | (done ? 0 : 0x80)));
        if (done)
            return;
    }
}

struct FileEntry {
    std::string name;
    uint64_t directory;
};

// One line-program unit: header fields, tables, and the program appended opcode by opcode.
// Versions 2 to 5, 32- or 64-bit DWARF. A version 5 unit's tables name its directories
// (entry 0 is `compilationDirectory`) and files by inline strings, unless `v5Tables` gives the
// table bytes (formats and entries) as they are to be written.
struct LineUnit {
    uint8_t minInst = 1;
    int8_t lineBase = 0;
    uint8_t lineRange = 15;
    uint8_t opcodeBase = 10;
    std::vector<uint8_t> opcodeLengths = {0, 1, 1, 1, 1, 0, 0, 0, 1};
    std::vector<std::string> directories;
    std::vector<FileEntry> files;
    uint16_t version = 2;
    bool dwarf64 = false;
    uint8_t addressSize = 8;                    // version 5
    uint8_t operationsPerInstruction = 1;       // versions 4 and 5
    std::string compilationDirectory = "/comp"; // version 5's directory 0
    Bytes v5Tables;
    int headerLengthSkew = 0; // added to the true header length, to corrupt it
    Bytes program;

    LineUnit &Op(uint8_t op) {
        program.push_back(op);
        return *this;
    }
    LineUnit &Special(unsigned addressAdvance, int lineAdvance) {
        program.push_back(static_cast<uint8_t>((lineAdvance - lineBase) +
                                               lineRange * addressAdvance + opcodeBase));
        return *this;
    }
    LineUnit &SetAddress(uint64_t address, unsigned size = 8) {
        program.push_back(0);
        PutULEB(program, size + 1);
        program.push_back(2);
        PutU(program, address, size);
        return *this;
    }
    // Offset of the next set_address operand within the program (add ProgramStart()).
    size_t NextOperand() const { return program.size() + 3; }
    LineUnit &EndSequence() {
        program.insert(program.end(), {0, 1, 1});
        return *this;
    }
    LineUnit &AdvancePc(uint64_t n) {
        program.push_back(2);
        PutULEB(program, n);
        return *this;
    }
    LineUnit &AdvanceLine(int64_t n) {
        program.push_back(3);
        PutSLEB(program, n);
        return *this;
    }
    LineUnit &SetFile(uint64_t f) {
        program.push_back(4);
        PutULEB(program, f);
        return *this;
    }
    LineUnit &SetColumn(uint64_t c) {
        program.push_back(5);
        PutULEB(program, c);
        return *this;
    }
    LineUnit &Copy() {
        program.push_back(1);
        return *this;
    }
    // An extended opcode with its operand bytes.
    LineUnit &Extended(uint8_t sub, const Bytes &operand) {
        program.push_back(0);
        PutULEB(program, operand.size() + 1);
        program.push_back(sub);
        program.insert(program.end(), operand.begin(), operand.end());
        return *this;
    }
    LineUnit &DefineFile(const std::string &name, uint64_t dir) {
        Bytes operand;
        PutString(operand, name);
        PutULEB(operand, dir);
        PutULEB(operand, 0);
        PutULEB(operand, 0);
        return Extended(3, operand);
    }

    // The directory and file tables of versions 2 to 4, or version 5's formats and entries.
    Bytes Tables() const {
        Bytes t;
        if (version >= 5) {
            if (!v5Tables.empty())
                return v5Tables;
            t.insert(t.end(), {1, 1, 0x08}); // one format: path as a string
            PutULEB(t, directories.size() + 1);
            PutString(t, compilationDirectory);
            for (const std::string &d : directories)
                PutString(t, d);
            t.insert(t.end(), {2, 1, 0x08, 2, 0x0f}); // path as a string, directory as udata
            PutULEB(t, files.size());
            for (const FileEntry &f : files) {
                PutString(t, f.name);
                PutULEB(t, f.directory);
            }
            return t;
        }
        for (const std::string &d : directories)
            PutString(t, d);
        t.push_back(0);
        for (const FileEntry &f : files) {
            PutString(t, f.name);
            PutULEB(t, f.directory);
            PutULEB(t, 0);
            PutULEB(t, 0);
        }
        t.push_back(0);
        return t;
    }
    // The fields after header_length, up to the program.
    Bytes AfterHeaderLength() const {
        Bytes t;
        t.push_back(minInst);
        if (version >= 4)
            t.push_back(operationsPerInstruction);
        t.push_back(1);
        t.push_back(static_cast<uint8_t>(lineBase));
        t.push_back(lineRange);
        t.push_back(opcodeBase);
        for (size_t i = 0; i + 1 < opcodeBase; ++i)
            t.push_back(i < opcodeLengths.size() ? opcodeLengths[i] : 0);
        Bytes tables = Tables();
        t.insert(t.end(), tables.begin(), tables.end());
        return t;
    }
    // The header from the version on, up to the program.
    Bytes Header() const {
        Bytes after = AfterHeaderLength();
        unsigned offsetSize = dwarf64 ? 8 : 4;
        Bytes b;
        PutU(b, version, 2);
        if (version >= 5) {
            b.push_back(addressSize);
            b.push_back(0); // segment selector size
        }
        PutU(b, static_cast<uint64_t>(static_cast<int64_t>(after.size()) + headerLengthSkew),
             offsetSize);
        b.insert(b.end(), after.begin(), after.end());
        return b;
    }
    // Bytes from the unit's start to its program.
    size_t ProgramStart() const { return (dwarf64 ? 12 : 4) + Header().size(); }

    Bytes Encode() const {
        Bytes header = Header();
        uint64_t length = header.size() + program.size();
        Bytes b;
        if (dwarf64) {
            PutU(b, 0xffffffffu, 4);
            PutU(b, length, 8);
        } else {
            PutU(b, length, 4);
        }
        b.insert(b.end(), header.begin(), header.end());
        b.insert(b.end(), program.begin(), program.end());
        return b;
    }
};

struct Attribute {
    uint16_t attribute;
    uint16_t form;
    Bytes value;
    int64_t implicitConst = 0; // the declaration's value for form 0x21
};

// A unit of .debug_info: its abbreviation (code 1) and its entry, in the order given. Versions
// 2 to 5; version 5 has a unit type.
struct InfoUnit {
    std::vector<Attribute> attributes;
    uint16_t version = 2;
    uint8_t unitType = 1; // DW_UT_compile
    uint64_t tag = 0x11;  // DW_TAG_compile_unit
    uint8_t addressSize = 8;
    bool dwarf64 = false;
    uint64_t abbrevOffset = 0;

    static Bytes U(uint64_t v, unsigned size) {
        Bytes b;
        PutU(b, v, size);
        return b;
    }

    // The usual unit: name, directory, producer, statement list (data4).
    static InfoUnit Standard(const std::string &name, const std::string &dir, uint64_t stmtList) {
        InfoUnit u;
        u.attributes = {{0x03, 0x08, Text(name)},
                        {0x1b, 0x08, Text(dir)},
                        {0x25, 0x08, Text("test producer")},
                        {0x10, 0x06, U(stmtList, 4)}};
        return u;
    }

    Bytes Abbrev() const {
        Bytes b;
        PutULEB(b, 1);
        PutULEB(b, tag);
        b.push_back(1);
        for (const Attribute &a : attributes) {
            PutULEB(b, a.attribute);
            PutULEB(b, a.form);
            if (a.form == 0x21)
                PutSLEB(b, a.implicitConst);
        }
        b.push_back(0);
        b.push_back(0);
        b.push_back(0);
        return b;
    }
    Bytes Info() const {
        Bytes body;
        PutU(body, version, 2);
        if (version >= 5) {
            body.push_back(unitType);
            body.push_back(addressSize);
            PutU(body, abbrevOffset, dwarf64 ? 8 : 4);
            if (unitType == 4 || unitType == 5)
                PutU(body, 0x1122334455667788, 8); // a DWO id
            else if (unitType == 2 || unitType == 6)
                PutU(body, 0, 8 + (dwarf64 ? 8 : 4)); // a type signature and offset
        } else {
            PutU(body, abbrevOffset, dwarf64 ? 8 : 4);
            body.push_back(addressSize);
        }
        PutULEB(body, 1);
        for (const Attribute &a : attributes)
            body.insert(body.end(), a.value.begin(), a.value.end());
        body.push_back(0);
        Bytes b;
        if (dwarf64) {
            PutU(b, 0xffffffffu, 4);
            PutU(b, body.size(), 8);
        } else {
            PutU(b, body.size(), 4);
        }
        b.insert(b.end(), body.begin(), body.end());
        return b;
    }
};

// The bytes of the sections a test decodes, and the readers' view of them (which points into
// these bytes, so the object must outlive the view's use).
struct SectionBytes {
    Bytes info, abbrev, line, str, lineStr, strOffsets, addr, ranges, rnglists;

    // The sections of one unit of .debug_info, with `line` as .debug_line.
    static SectionBytes Of(const InfoUnit &unit, Bytes line = {}) {
        SectionBytes bytes;
        bytes.info = unit.Info();
        bytes.abbrev = unit.Abbrev();
        bytes.line = std::move(line);
        return bytes;
    }

    quillet::CDwarfSections View() const {
        auto view = [](const Bytes &b) {
            return quillet::CDwarfSection{b.data(), b.size(), nullptr};
        };
        return quillet::CDwarfSections{view(info), view(abbrev),  view(line),
                                       view(str),  view(lineStr), view(strOffsets),
                                       view(addr), view(ranges),  view(rnglists)};
    }
};

// Places each sequence by its operand's offset where `places` names it (a section, and the bias
// added to its addresses), else unmoved in `fallback`; one whose address operand is `skipped` is
// code a linker dropped. An offset without a place fails where there is no fallback.
struct TestPlacer : quillet::CSequencePlacer {
    std::map<uint64_t, std::pair<BrxHandle, int64_t>> places;
    BrxHandle fallback = 0;
    std::optional<uint64_t> skipped;
    std::vector<uint64_t> asked; // the operand offsets, in the order asked
    Result Place(const quillet::CAddressOperand &operand, BrxHandle &section,
                 int64_t &bias) override {
        asked.push_back(operand.m_nOffset);
        if (operand.m_nAddress == skipped)
            return Result::Skipped;
        auto it = places.find(operand.m_nOffset);
        if (it == places.end() && !fallback)
            return Result::Failed;
        section = it == places.end() ? fallback : it->second.first;
        bias = it == places.end() ? 0 : it->second.second;
        return Result::Placed;
    }
};

} // namespace retrievaltest
