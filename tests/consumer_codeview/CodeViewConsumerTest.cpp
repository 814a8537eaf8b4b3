// COFF objects described through the C API and written by brix, read by llvm-readobj-14: every
// record, subsection, string, checksum and line block must be dumped without a complaint, and
// what is dumped must be what was described. LLVM opens no COFF object of machine 0x0200, so
// the tools read a copy whose machine field is 0; the CodeView content does not depend on it.
#include "ReadobjDump.h"
#include "codeview/CodeViewReading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

namespace {

using namespace cvtest;

struct LineSpec {
    std::string file; // base name
    uint32_t line;
    uint64_t offset;
};
struct Segment {
    std::string file;
    std::vector<std::pair<uint32_t, uint32_t>> lines; // (offset, line)
};
// A symbol record as the dump shows it: its kind and the name it carries.
struct SymbolSpec {
    std::string kind;
    std::string name;
};

class CodeViewConsumer : public ::testing::Test {
protected:
    qtest::TempDir m_Dir;
    std::map<std::string, std::string> m_Sources; // base name -> content

    std::string Source(const std::string &name, const std::string &content) {
        m_Sources[name] = content;
        const std::string path = m_Dir.File(name);
        EXPECT_TRUE(qtest::WriteTextFile(path, content));
        return path;
    }
    // The string table names a file by the path it was described with.
    std::string TablePath(const std::string &baseName) const { return m_Dir.File(baseName); }
    // The digest as md5sum computes it, independently of the library.
    std::string Md5Sum(const std::string &baseName) const {
        const auto result = qtest::RunCommand("md5sum '" + m_Dir.File(baseName) + "'");
        EXPECT_EQ(result.exitCode, 0);
        return result.output.substr(0, 32);
    }
    // A copy of the object whose machine field is 0, for LLVM.
    std::string MachineZeroCopy(const std::string &object) const {
        std::vector<uint8_t> bytes = qtest::ReadFileBytes(object);
        EXPECT_GE(bytes.size(), 2u);
        if (bytes.size() >= 2)
            bytes[0] = bytes[1] = 0;
        const std::string copy = m_Dir.File("machine0.obj");
        EXPECT_TRUE(qtest::WriteTextFile(copy, std::string(bytes.begin(), bytes.end())));
        return copy;
    }
    // Runs a readobj command and requires a clean exit without any complaint.
    static std::string Readobj(const std::string &options, const std::string &object) {
        const auto result = qtest::RunConsumer("llvm-readobj-14 " + options, object);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        for (const std::string &line : qtest::ConsumerComplaints(result.output))
            ADD_FAILURE() << "llvm-readobj " << options << ": " << line;
        return result.output;
    }
};

std::string KindOf(const cvdump::Symbol &symbol) {
    const auto kind = symbol.fields.find("Kind");
    return kind == symbol.fields.end() ? "" : kind->second.substr(0, kind->second.find(' '));
}
std::string NameOf(const cvdump::Symbol &symbol) {
    for (const char *key : {"DisplayName", "Name"})
        if (auto it = symbol.fields.find(key); it != symbol.fields.end())
            return it->second;
    return "";
}
std::string Field(const cvdump::Symbol &symbol, const std::string &key) {
    const auto it = symbol.fields.find(key);
    return it == symbol.fields.end() ? "<missing " + key + ">" : it->second;
}
const cvdump::Symbol *FindSymbol(const cvdump::SymbolSection &section, const std::string &name) {
    for (const cvdump::Symbol &s : section.symbols)
        if (NameOf(s) == name)
            return &s;
    return nullptr;
}

void ExpectSymbols(const cvdump::SymbolSection &section, const std::vector<SymbolSpec> &expected,
                   const std::string &what) {
    std::vector<std::string> seen, wanted;
    for (const cvdump::Symbol &s : section.symbols)
        seen.push_back(KindOf(s) + " " + NameOf(s));
    for (const SymbolSpec &s : expected)
        wanted.push_back(s.kind + " " + s.name);
    EXPECT_EQ(seen, wanted) << what;
}

// The segments of a line table, each file named through the object's one checksum table (the
// block's file field is an offset into it), relative to `directory`. The dump's own reading of
// the name must agree.
std::vector<Segment> Resolve(const cvdump::LineTable &table, const cvdump::SymbolSection &main,
                             const std::string &directory) {
    std::vector<Segment> out;
    for (const cvdump::LineSegment &segment : table.segments) {
        Segment s;
        const uint32_t index = segment.checksumOffset / 24;
        if (segment.checksumOffset % 24 == 0 && index < main.checksums.size()) {
            const std::string &path = main.checksums[index].filename;
            s.file = path.compare(0, directory.size() + 1, directory + "/") == 0
                         ? path.substr(directory.size() + 1)
                         : "<" + path + ">";
            if (segment.filename != path)
                s.file += " <dumped as " + segment.filename + ">";
        } else {
            s.file = "<bad checksum offset " + std::to_string(segment.checksumOffset) + ">";
        }
        s.lines = segment.lines;
        out.push_back(s);
    }
    return out;
}

std::string Describe(const std::vector<Segment> &segments) {
    std::ostringstream out;
    for (const Segment &s : segments) {
        out << s.file << ":";
        for (auto [offset, line] : s.lines)
            out << " " << std::hex << offset << std::dec << "=" << line;
        out << "; ";
    }
    return out.str();
}

// One lines subsection as the dump shows it: the symbol it is relocated against, its code size
// and its segments.
struct TableSpec {
    std::string linkage;
    uint32_t codeSize;
    std::vector<Segment> segments;
};

void ExpectLineTables(const cvdump::SymbolSection &section, const cvdump::SymbolSection &main,
                      const std::string &directory, const std::vector<TableSpec> &expected,
                      const std::string &what) {
    std::vector<std::string> seen, wanted;
    for (const cvdump::LineTable &t : section.lineTables)
        seen.push_back(t.linkageName + " " + std::to_string(t.codeSize) + " " +
                       Describe(Resolve(t, main, directory)));
    for (const TableSpec &t : expected)
        wanted.push_back(t.linkage + " " + std::to_string(t.codeSize) + " " + Describe(t.segments));
    EXPECT_EQ(seen, wanted) << what;
}

// Relocations of a symbol section come in pairs against one symbol, sorted by offset: a
// section-relative offset (14), then the section index (11) of the segment field after it.
void ExpectRelocationPairs(const cvdump::Section &section,
                           const std::vector<std::string> &symbols) {
    std::vector<std::string> targets;
    ASSERT_EQ(section.relocations.size() % 2, 0u) << section.name;
    for (size_t i = 0; i + 1 < section.relocations.size(); i += 2) {
        const cvdump::Relocation &offset = section.relocations[i],
                                 &index = section.relocations[i + 1];
        EXPECT_EQ(offset.type, 14u) << section.name << " relocation " << i;
        EXPECT_EQ(index.type, 11u) << section.name << " relocation " << i + 1;
        EXPECT_EQ(index.offset, offset.offset + 4) << section.name << " relocation " << i;
        EXPECT_EQ(index.symbol, offset.symbol) << section.name << " relocation " << i;
        if (i > 0) {
            EXPECT_GT(offset.offset, section.relocations[i - 1].offset) << section.name;
        }
        targets.push_back(index.symbol);
    }
    EXPECT_EQ(targets, symbols) << section.name;
}

TEST_F(CodeViewConsumer, EveryObjectKindSectionAndFileIsDumpedAsDescribed) {
    const std::string alpha = Source("alpha.asm", "start: nop\nloop: jmp loop\n");
    const std::string beta = Source("beta.asm", "beta\nsource\n");
    const std::string gamma = Source("gamma.asm", ""); // the digest of zero bytes
    const std::string object = m_Dir.File("module.obj");
    {
        CoffModule m(object);
        qtest::ModuleBuilder &b = m.Builder();
        DbgScope module = m.OpenModule();
        const BrxHandle text = m.Section(".text", 0x60), data = m.Section(".data", 0x20, false);
        const BrxHandle text2 = m.Section(".text2", 0x20);
        const BrxHandle inl = m.Section(".text$inl", 0x18, true, true);
        const BrxHandle nol = m.Section(".text$nol", 0x10, true, true);
        std::map<std::string, DbgSource> files = {{"alpha.asm", m.Source(alpha)},
                                                  {"beta.asm", m.Source(beta)},
                                                  {"gamma.asm", m.Source(gamma)}};
        auto lines = [&](DbgScope scope, const std::vector<LineSpec> &specs) {
            for (const LineSpec &l : specs)
                m.Line(scope, files.at(l.file), l.line, l.offset);
        };
        DbgType data4 = nullptr, real8 = nullptr, nearType = nullptr, farType = nullptr;
        ASSERT_EQ(Dbg_base_type(5, &data4), DBG_ERR_NONE);
        ASSERT_EQ(Dbg_base_type(10, &real8), DBG_ERR_NONE);
        ASSERT_EQ(Dbg_procedure_type(data4, 1, &nearType), DBG_ERR_NONE);
        ASSERT_EQ(Dbg_procedure_type(real8, 2, &farType), DBG_ERR_NONE);

        // Constants of the module, one per integer numeric leaf. Real constants are left out:
        // llvm-readobj 14 decodes integer leaves only and stops at LF_REAL32/64/80 ("invalid
        // APSInt type"); their bytes are checked in the codeview unit tests.
        const uint8_t small = 127;
        const int16_t shortValue = -300;
        const uint64_t big = 0x100000000;
        const int64_t negative = -2;
        const int32_t wide = 100000;
        ASSERT_EQ(b.Constant("K_SMALL", 1, &small), DBG_ERR_NONE);
        ASSERT_EQ(b.Constant("K_SHORT", 4, &shortValue), DBG_ERR_NONE);
        ASSERT_EQ(b.Constant("K_BIG", 7, &big), DBG_ERR_NONE);
        ASSERT_EQ(b.Constant("K_NEG", 8, &negative), DBG_ERR_NONE);
        ASSERT_EQ(b.Constant("K_WIDE", 6, &wide), DBG_ERR_NONE);

        DbgScope s = m.OpenSection(text);
        ASSERT_EQ(b.CodeLabel(m.Symbol("start", text, 0, false, BRX_SYMBOL_PLAIN)), DBG_ERR_NONE);
        lines(s, {{"alpha.asm", 1, 0}, {"alpha.asm", 2, 4}});
        DbgScope p = m.OpenProcedure(m.Symbol("main", text, 0x10), 0x10, 0x40, nearType);
        ASSERT_EQ(b.CodeLabel(m.Symbol("loop", text, 0x20, false, BRX_SYMBOL_PLAIN)), DBG_ERR_NONE);
        ASSERT_EQ(b.Register("counter", 5, 200), DBG_ERR_NONE);
        ASSERT_EQ(b.Register("acc", 7, 1), DBG_ERR_NONE);
        lines(p, {{"alpha.asm", 10, 0x10},
                  {"alpha.asm", 11, 0x14},
                  {"alpha.asm", 11, 0x16},
                  {"beta.asm", 3, 0x20},
                  {"alpha.asm", 12, 0x24}});
        m.Close();
        DbgScope h = m.OpenProcedure(m.Symbol("helper", text, 0x40, false), 0x40, 0x60);
        lines(h, {{"gamma.asm", 6, 0x48}, {"gamma.asm", 5, 0x40}}); // recorded out of order
        m.Close();
        m.Reenter(module);

        m.OpenSection(data);
        ASSERT_EQ(b.DataLabel(m.Symbol("counter_var", data, 0, true, BRX_SYMBOL_PLAIN), 5),
                  DBG_ERR_NONE);
        ASSERT_EQ(b.DataLabel(m.Symbol("table", data, 8, false, BRX_SYMBOL_PLAIN), 0),
                  DBG_ERR_NONE);
        m.Reenter(module);

        m.OpenSection(text2);
        DbgScope p2 = m.OpenProcedure(m.Symbol("second", text2, 0), 0, 0x20, farType);
        lines(p2, {{"beta.asm", 20, 0}, {"beta.asm", 21, 8}});
        m.Close();
        m.Reenter(module);

        DbgScope c = m.OpenSection(inl);
        ASSERT_EQ(b.CodeLabel(m.Symbol("inl_entry", inl, 2, false, BRX_SYMBOL_PLAIN), nullptr, c),
                  DBG_ERR_NONE);
        DbgScope p3 = m.OpenProcedure(m.Symbol("inl", inl, 0), 0, 0x18, nearType);
        lines(p3, {{"gamma.asm", 30, 0}, {"alpha.asm", 31, 6}});
        m.Close();
        m.Reenter(module);

        m.OpenSection(nol);
        m.OpenProcedure(m.Symbol("nol", nol, 0), 0, 0x10);
        m.Close();

        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(b.Write());
    }
    const std::string copy = MachineZeroCopy(object);
    const cvdump::CodeViewDump dump = cvdump::ParseCodeView(Readobj("--codeview", copy));
    const std::string cwd = WorkingDirectory();

    // Types: the near procedure type first (asked for by main), then the default one (helper),
    // then the far one (second).
    ASSERT_EQ(dump.types.size(), 6u);
    const struct {
        uint32_t index;
        const char *field, *value;
    } typeFields[] = {
        {0x1000, "TypeLeafKind", "LF_ARGLIST (0x1201)"},
        {0x1000, "NumArgs", "0"},
        {0x1001, "TypeLeafKind", "LF_PROCEDURE (0x1008)"},
        {0x1001, "ArgListType", "() (0x1000)"},
        {0x1003, "ArgListType", "() (0x1002)"},
        {0x1005, "ArgListType", "() (0x1004)"},
        {0x1001, "CallingConvention", "Generic (0xD)"},
        {0x1005, "CallingConvention", "NearC (0x0)"},
    };
    for (const auto &f : typeFields) {
        ASSERT_LT(f.index - 0x1000, dump.types.size());
        const cvdump::TypeRecord &t = dump.types[f.index - 0x1000];
        EXPECT_EQ(t.index, f.index);
        EXPECT_EQ(t.fields.count(f.field) ? t.fields.at(f.field) : "", f.value) << f.field;
    }
    EXPECT_NE(dump.types[1].fields.at("ReturnType").find("(0x22)"), std::string::npos);
    EXPECT_NE(dump.types[3].fields.at("ReturnType").find("(0x3)"), std::string::npos);
    EXPECT_NE(dump.types[5].fields.at("ReturnType").find("(0x41)"), std::string::npos);

    // Symbol sections: the main one and one for each COMDAT section with records.
    ASSERT_EQ(dump.symbolSections.size(), 3u);
    const cvdump::SymbolSection &main = dump.symbolSections[0], &own = dump.symbolSections[1],
                                &quiet = dump.symbolSections[2];
    EXPECT_EQ(main.subsections,
              (std::vector<uint32_t>{0xF1, 0xF3, 0xF4, 0xF2, 0xF2, 0xF2, 0xF2, 0xF2, 0xF2}));
    EXPECT_EQ(own.subsections, (std::vector<uint32_t>{0xF1, 0xF2, 0xF2}));
    EXPECT_EQ(quiet.subsections, (std::vector<uint32_t>{0xF1}));

    ExpectSymbols(main,
                  {{"S_OBJNAME", ""},
                   {"S_COMPILE3", ""},
                   {"S_ENVBLOCK", ""},
                   {"S_CONSTANT", "K_SMALL"},
                   {"S_CONSTANT", "K_SHORT"},
                   {"S_CONSTANT", "K_BIG"},
                   {"S_CONSTANT", "K_NEG"},
                   {"S_CONSTANT", "K_WIDE"},
                   {"S_LABEL32", "start"},
                   {"S_GPROC32", "main"},
                   {"S_LABEL32", "loop"},
                   {"S_REGISTER", "counter"},
                   {"S_REGISTER", "acc"},
                   {"S_END", ""},
                   {"S_LPROC32", "helper"},
                   {"S_END", ""},
                   {"S_GDATA32", "counter_var"},
                   {"S_LDATA32", "table"},
                   {"S_GPROC32", "second"},
                   {"S_END", ""}},
                  "main symbols");
    ExpectSymbols(own, {{"S_LABEL32", "inl_entry"}, {"S_GPROC32", "inl"}, {"S_END", ""}},
                  "COMDAT symbols");
    ExpectSymbols(quiet, {{"S_GPROC32", "nol"}, {"S_END", ""}}, "COMDAT symbols without lines");

    ASSERT_FALSE(main.symbols.empty());
    EXPECT_EQ(Field(main.symbols[0], "ObjectName"), object);
    EXPECT_EQ(Field(main.symbols[1], "VersionName"), "quillet test");
    EXPECT_EQ(Field(main.symbols[1], "Language"), "Masm (0x3)");
    EXPECT_EQ(Field(main.symbols[1], "FrontendVersion"), "1.2.3.0");
    EXPECT_EQ(main.symbols[2].entries,
              (std::vector<std::string>{"cwd", cwd, "exe", "c:\\tools\\qasm.exe", "src",
                                        "/src/main.asm"}));

    // Fields of the objects, by name.
    const struct {
        const cvdump::SymbolSection *section;
        const char *name, *field, *value;
    } fields[] = {
        {&main, "K_SMALL", "Value", "127"},
        {&main, "K_SHORT", "Value", "-300"},
        {&main, "K_BIG", "Value", "4294967296"},
        {&main, "K_NEG", "Value", "-2"},
        {&main, "K_WIDE", "Value", "100000"},
        {&main, "K_SMALL", "Type", "unsigned char (0x20)"},
        {&main, "start", "CodeOffset", "start+0x0"},
        {&main, "loop", "CodeOffset", "loop+0x0"},
        {&main, "main", "CodeOffset", "main+0x0"},
        {&main, "main", "CodeSize", "0x30"},
        {&main, "main", "DbgEnd", "0x30"},
        {&main, "main", "FunctionType", "unsigned long () (0x1001)"},
        {&main, "helper", "FunctionType", "void () (0x1003)"},
        {&main, "second", "FunctionType", "double () (0x1005)"},
        {&main, "counter", "Type", "unsigned long (0x22)"},
        {&main, "counter", "Seg", "0x847"}, // register 200: CodeView 2119
        {&main, "acc", "Seg", "0x400"},     // register 1: CodeView 1024
        {&main, "counter_var", "DataOffset", "counter_var+0x0"},
        {&main, "counter_var", "Type", "unsigned long (0x22)"},
        {&main, "table", "Type", "void (0x3)"},
        {&own, "inl", "CodeOffset", "inl+0x0"},
        {&own, "inl", "FunctionType", "unsigned long () (0x1001)"},
        {&own, "inl_entry", "CodeOffset", "inl_entry+0x0"},
        {&quiet, "nol", "CodeOffset", "nol+0x0"},
        {&quiet, "nol", "CodeSize", "0x10"},
    };
    for (const auto &f : fields) {
        const cvdump::Symbol *symbol = FindSymbol(*f.section, f.name);
        ASSERT_NE(symbol, nullptr) << f.name;
        EXPECT_EQ(Field(*symbol, f.field), f.value) << f.name;
    }

    // Checksums: files in the order the entries first name them, MD5 of their bytes.
    const auto expectChecksums = [&](const cvdump::SymbolSection &section,
                                     const std::vector<std::string> &names, const char *what) {
        ASSERT_EQ(section.checksums.size(), names.size()) << what;
        for (size_t i = 0; i < names.size(); ++i) {
            EXPECT_EQ(section.checksums[i].filename, TablePath(names[i])) << what;
            EXPECT_EQ(section.checksums[i].kind, "MD5 (0x1)") << what;
            EXPECT_EQ(section.checksums[i].bytes, Md5Sum(names[i])) << what << " " << names[i];
        }
    };
    // One table for the object, in the main section.
    expectChecksums(main, {"alpha.asm", "beta.asm", "gamma.asm"}, "main table");
    expectChecksums(own, {}, "COMDAT section");

    // Lines: a subsection per procedure and per stretch of code between procedures, cut where
    // the file changes; offsets count from each subsection's start.
    const std::string directory = m_Dir.Path();
    ExpectLineTables(main, main, directory,
                     {{".text", 0x10, {{"alpha.asm", {{0, 1}, {4, 2}}}}},
                      {"main", 0x10, {{"alpha.asm", {{0, 10}, {4, 11}}}}},
                      {"$$$L1", 0x04, {{"beta.asm", {{0, 3}}}}},
                      {"$$$L2", 0x1C, {{"alpha.asm", {{0, 12}}}}},
                      {"helper", 0x20, {{"gamma.asm", {{0, 5}, {8, 6}}}}},
                      {"second", 0x20, {{"beta.asm", {{0, 20}, {8, 21}}}}}},
                     "main lines");
    ExpectLineTables(own, main, directory,
                     {{"inl", 0x06, {{"gamma.asm", {{0, 30}}}}},
                      {".text$inl", 0x12, {{"alpha.asm", {{0, 31}}}}}},
                     "COMDAT lines");

    // Sections, relocations and the COMDAT association of the symbol sections.
    const auto sections =
        cvdump::ParseSections(Readobj("--sections --relocations --symbols --expand-relocs", copy));
    std::vector<const cvdump::Section *> symbolSections;
    for (const cvdump::Section &s : sections)
        if (s.name == ".debug$S")
            symbolSections.push_back(&s);
    ASSERT_EQ(symbolSections.size(), 3u);
    auto has = [](const cvdump::Section &s, const std::string &c) {
        return std::find(s.characteristics.begin(), s.characteristics.end(), c) !=
               s.characteristics.end();
    };
    EXPECT_FALSE(has(*symbolSections[0], "IMAGE_SCN_LNK_COMDAT"));
    EXPECT_TRUE(has(*symbolSections[0], "IMAGE_SCN_MEM_DISCARDABLE"));
    const char *associated[] = {".text$inl", ".text$nol"};
    for (int i = 0; i < 2; ++i) {
        const cvdump::Section &s = *symbolSections[1 + i];
        EXPECT_TRUE(has(s, "IMAGE_SCN_LNK_COMDAT")) << i;
        EXPECT_EQ(s.selection, "Associative (0x5)") << i;
        EXPECT_EQ(s.associatedSection, associated[i]) << i;
    }
    ExpectRelocationPairs(*symbolSections[0],
                          {"start", "main", "loop", "helper", "counter_var", "table", "second",
                           ".text", "main", "$$$L1", "$$$L2", "helper", "second"});
    ExpectRelocationPairs(*symbolSections[1], {"inl_entry", "inl", "inl", ".text$inl"});
    ExpectRelocationPairs(*symbolSections[2], {"nol"});
    for (const cvdump::Section &s : sections) {
        if (s.name == ".debug$T") {
            EXPECT_TRUE(s.relocations.empty());
        }
    }
}

TEST_F(CodeViewConsumer, EmptyModuleIsDumpedWithItsThreeRecords) {
    const std::string object = m_Dir.File("empty.obj");
    {
        CoffModule m(object);
        m.OpenModule();
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(m.Builder().Write());
    }
    const cvdump::CodeViewDump dump =
        cvdump::ParseCodeView(Readobj("--codeview", MachineZeroCopy(object)));
    EXPECT_TRUE(dump.types.empty());
    ASSERT_EQ(dump.symbolSections.size(), 1u);
    EXPECT_EQ(dump.symbolSections[0].subsections, std::vector<uint32_t>{0xF1});
    ExpectSymbols(dump.symbolSections[0],
                  {{"S_OBJNAME", ""}, {"S_COMPILE3", ""}, {"S_ENVBLOCK", ""}}, "empty module");
}

} // namespace
