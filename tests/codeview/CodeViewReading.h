// Reading CodeView back from an object made through the shared module builder: sections by
// name (a COFF object has several .debug$S), their bytes, COMDAT records and relocations, and a
// symbol section taken apart into subsections and records with its framing checked on the way.
#pragma once

#include "support/ModuleBuilder.h"
#include "support/Support.h"

#include "brix/brix.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace cvtest {

using Bytes = std::vector<uint8_t>;

inline uint32_t U32(const Bytes &b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}
inline uint16_t U16(const Bytes &b, size_t at) {
    return uint16_t(b[at] | b[at + 1] << 8);
}
inline void PutU32(Bytes &out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(v >> (8 * i)));
}
inline void PutU16(Bytes &out, uint16_t v) {
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(v >> 8));
}
inline void PutString(Bytes &out, const std::string &s) {
    out.insert(out.end(), s.begin(), s.end());
    out.push_back(0);
}
inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

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
// of every header and that the fill between subsections is zero.
inline std::vector<Subsection> Subsections(const Bytes &section) {
    std::vector<Subsection> out;
    EXPECT_GE(section.size(), 4u);
    if (section.size() < 4)
        return out;
    EXPECT_EQ(U32(section, 0), 4u) << "signature";
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

inline std::vector<uint16_t> RecordKinds(const Bytes &content) {
    std::vector<uint16_t> kinds;
    for (const Record &r : Records(content))
        kinds.push_back(r.kind);
    return kinds;
}

// Every section of the file with this name, in creation order.
inline std::vector<BrxHandle> SectionsNamed(BrxHandle file, const std::string &name) {
    std::vector<BrxHandle> found;
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name.c_str()};
    BrxHandle section = 0;
    while (_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0) == BRX_OK) {
        found.push_back(section);
        find.after = section;
    }
    return found;
}

inline Bytes Contents(BrxHandle section) {
    uint64_t size = 0;
    EXPECT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_SIZE, nullptr, &size, 0), BRX_OK);
    Bytes bytes(size);
    BrxBytes record{size, 0, bytes.data()};
    if (size) {
        EXPECT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_DATA, nullptr, &record, 0), BRX_OK);
    }
    return bytes;
}

// What a relocation names: a section by its name, a symbol by its name and offset ("p1@0x8").
inline std::string TargetName(BrxHandle target) {
    char name[256] = {};
    uint32_t capacity = sizeof name;
    EXPECT_EQ(_brx_get_keyed(target, BRX_KEY_SYMBOL_NAME, &capacity, name, 0), BRX_OK);
    uint64_t offset = 0;
    if (_brx_get_keyed(target, BRX_KEY_SYMBOL_OFFSET, nullptr, &offset, 0) != BRX_OK)
        return name; // a section
    char at[32];
    std::snprintf(at, sizeof at, "@0x%llx", static_cast<unsigned long long>(offset));
    return name + std::string(at);
}

inline BrxComdat Comdat(BrxHandle section) {
    BrxComdat record{0, 0};
    EXPECT_EQ(_brx_get_keyed(section, BRX_KEY_COMDAT, nullptr, &record, 0), BRX_OK);
    return record;
}

inline void MakeComdat(BrxHandle section) {
    BrxComdat record{BRX_COMDAT_ANY, 0};
    EXPECT_EQ(_brx_set_value(section, BRX_KEY_COMDAT, &record, 0), BRX_OK);
}

// The shared module builder on a COFF object, with the handles the tests need returned directly
// and the CodeView sections read back by name.
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

    std::vector<BrxHandle> SectionsNamed(const std::string &name) const {
        return cvtest::SectionsNamed(File(), name);
    }
    static Bytes Contents(BrxHandle section) { return cvtest::Contents(section); }
    static BrxComdat Comdat(BrxHandle section) { return cvtest::Comdat(section); }
    std::vector<qtest::ModuleBuilder::Relocation> Relocations(BrxHandle section) const {
        return m_Builder.Relocations(section);
    }

private:
    qtest::ModuleBuilder m_Builder;
};

} // namespace cvtest
