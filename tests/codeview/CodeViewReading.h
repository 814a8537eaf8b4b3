// Reading CodeView back from an object made through the shared module builder: a symbol section
// taken apart into subsections and records with its framing checked on the way, COMDAT
// sections; and the expected bytes of line subsections.
#pragma once

#include "support/Bytes.h"
#include "support/ModuleBuilder.h"
#include "support/Support.h"

#include "brix/brix.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace cvtest {

using qtest::Bytes;
using qtest::Concat;
using qtest::PutU32;
using qtest::U16;
using qtest::U32;

inline std::u16string Wide(const std::string &s) {
    return std::u16string(s.begin(), s.end());
}

inline std::string WorkingDirectory() {
    char buffer[4096];
    return getcwd(buffer, sizeof buffer) ? buffer : "";
}

struct Subsection {
    uint32_t kind;
    size_t offset; // of the header, in the section
    Bytes content;
};

struct Record {
    uint16_t kind;
    size_t offset; // in the subsection's content
    Bytes bytes;   // the whole record, length field included
};

// Splits a symbol section into its subsections, checking the signature, the 4-byte alignment
// of every header, that the fill after each subsection is zero and that the section ends on a
// multiple of 4 bytes.
inline std::vector<Subsection> Subsections(const Bytes &section) {
    std::vector<Subsection> out;
    EXPECT_GE(section.size(), 4u);
    if (section.size() < 4)
        return out;
    EXPECT_EQ(U32(section, 0), 4u) << "signature";
    EXPECT_EQ(section.size() % 4, 0u) << "the section ends on a multiple of 4 bytes";
    size_t at = 4;
    while (at < section.size()) {
        EXPECT_EQ(at % 4, 0u) << "subsection header at " << at;
        if (at + 8 > section.size()) {
            ADD_FAILURE() << "truncated subsection header at " << at;
            break;
        }
        Subsection s{U32(section, at), at, {}};
        const uint32_t length = U32(section, at + 4);
        if (at + 8 + length > section.size()) {
            ADD_FAILURE() << "subsection at " << at << " runs past the end";
            break;
        }
        s.content.assign(section.begin() + at + 8, section.begin() + at + 8 + length);
        at += 8 + length;
        const size_t next = (at + 3) & ~size_t(3);
        for (; at < next && at < section.size(); ++at)
            EXPECT_EQ(section[at], 0) << "fill byte at " << at;
        out.push_back(std::move(s));
    }
    return out;
}

inline std::vector<uint32_t> Kinds(const std::vector<Subsection> &subsections) {
    std::vector<uint32_t> kinds;
    for (const Subsection &s : subsections)
        kinds.push_back(s.kind);
    return kinds;
}

// Splits a symbols subsection into records; their lengths must add up to it exactly.
inline std::vector<Record> Records(const Bytes &content) {
    std::vector<Record> out;
    size_t at = 0;
    while (at + 4 <= content.size()) {
        const size_t total = size_t(U16(content, at)) + 2;
        if (at + total > content.size())
            break;
        out.push_back(
            {U16(content, at + 2), at, Bytes(content.begin() + at, content.begin() + at + total)});
        at += total;
    }
    EXPECT_EQ(at, content.size()) << "records do not fill the symbols subsection";
    return out;
}

// A lines subsection's header: the start of its code (relocated against its anchor), segment
// and flags 0, the code size.
inline Bytes LineHeader(uint32_t start, uint32_t codeSize) {
    Bytes out;
    PutU32(out, start);
    PutU32(out, 0);
    PutU32(out, codeSize);
    return out;
}

// A file block of (offset, line) pairs; every line word carries the statement bit.
inline Bytes Block(uint32_t file, std::vector<std::pair<uint32_t, uint32_t>> pairs) {
    Bytes out;
    PutU32(out, file);
    PutU32(out, uint32_t(pairs.size()));
    PutU32(out, uint32_t(12 + 8 * pairs.size()));
    for (auto [offset, line] : pairs) {
        PutU32(out, offset);
        PutU32(out, line | 0x80000000u);
    }
    return out;
}

inline void MakeComdat(BrxHandle section) {
    BrxComdat record{BRX_COMDAT_ANY, 0};
    EXPECT_EQ(_brx_set_value(section, BRX_KEY_COMDAT, &record, 0), BRX_OK);
}

// The shared module builder on a COFF object, with the handles the tests need returned directly
// and every call expected to succeed.
class CoffModule {
public:
    explicit CoffModule(const std::string &objectPath) : m_Builder(objectPath, BRX_FORMAT_COFF) {}

    qtest::ModuleBuilder &Builder() { return m_Builder; }
    BrxHandle File() const { return m_Builder.File(); }

    BrxHandle Section(const std::string &name, uint32_t size, bool code = true,
                      bool comdat = false) {
        const BrxHandle section = m_Builder.AddSection(name, code, size);
        EXPECT_NE(section, 0u) << name;
        if (comdat)
            MakeComdat(section);
        return section;
    }
    BrxHandle Symbol(const std::string &name, BrxHandle section, uint64_t offset,
                     bool global = true, uint32_t type = BRX_SYMBOL_FUNCTION) {
        return m_Builder.AddSymbol(name, section, offset, global, type);
    }
    DbgScope OpenModule(uint32_t noDebugInfo = 0) {
        DbgScope scope = nullptr;
        EXPECT_EQ(m_Builder.OpenModule(u"/src", u"main.asm", u"quillet test", noDebugInfo, &scope),
                  DBG_ERR_NONE);
        return scope;
    }
    DbgScope OpenSection(BrxHandle section) {
        DbgScope scope = nullptr;
        EXPECT_EQ(m_Builder.OpenSection(section, &scope), DBG_ERR_NONE);
        return scope;
    }
    DbgScope OpenProcedure(BrxHandle entry, uint64_t start, uint64_t end, DbgType type = nullptr) {
        DbgScope scope = nullptr;
        EXPECT_EQ(m_Builder.OpenProcedure({entry}, start, end, &scope, nullptr, type),
                  DBG_ERR_NONE);
        return scope;
    }
    void Close() { EXPECT_EQ(m_Builder.Close(), DBG_ERR_NONE); }
    // A scope with child scopes cannot be closed: go back to the module (or any scope) instead.
    void Reenter(DbgScope scope) { EXPECT_EQ(Dbg_set_current_scope(scope), DBG_ERR_NONE); }
    DbgSource Source(const std::string &path) { return m_Builder.Source(Wide(path)); }
    void Line(DbgScope scope, DbgSource source, uint32_t line, uint64_t offset) {
        EXPECT_EQ(m_Builder.Line(source, line, offset, scope), DBG_ERR_NONE);
    }

    // The subsections of the first (main) symbol section.
    std::vector<Subsection> MainSubsections() const {
        const auto symbols = m_Builder.SectionsNamed(".debug$S");
        EXPECT_FALSE(symbols.empty());
        return symbols.empty() ? std::vector<Subsection>{}
                               : Subsections(m_Builder.SectionBytes(symbols[0]));
    }

private:
    qtest::ModuleBuilder m_Builder;
};

} // namespace cvtest
