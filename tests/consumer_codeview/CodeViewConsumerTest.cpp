// COFF objects described through the C API and written by brix, read by llvm-readobj-14: every
// record, subsection, string, checksum and line block must be dumped without a complaint, and
// what is dumped must be what was described. LLVM opens no COFF object of machine 0x0200, so
// the tools read a copy whose machine field is 0; the CodeView content does not depend on it.
#include "codeview/CodeViewReading.h"
#include "support/ReadobjTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <sys/stat.h>

namespace {

using namespace cvtest;
using readobj::Node;

struct LineSpec {
    std::string file; // as registered, relative to the working directory
    uint32_t line;
    uint64_t offset;
};

// A name outside the Basic Multilingual Plane: U+00E9, U+20AC and U+1F600 take two, three and
// four bytes in UTF-8.
const char kWideName[] = "caf\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.asm";

// Runs in its own directory, where sources are named relative to it, and goes back afterwards.
class CodeViewConsumer : public ::testing::Test {
protected:
    void SetUp() override {
        m_Previous = WorkingDirectory();
        ASSERT_EQ(chdir(m_Dir.Path().c_str()), 0);
    }
    void TearDown() override { EXPECT_EQ(chdir(m_Previous.c_str()), 0); }

    qtest::TempDir m_Dir;
    std::string m_Previous;

    void Source(const std::string &name, const std::string &content) {
        EXPECT_TRUE(qtest::WriteTextFile(m_Dir.File(name), content)) << name;
    }
    // The digest as md5sum computes it, independently of the library.
    std::string Md5Sum(const std::string &baseName) const {
        const auto result = qtest::RunCommand("md5sum '" + m_Dir.File(baseName) + "'");
        EXPECT_EQ(result.exitCode, 0);
        return result.output.substr(0, 32);
    }
    // Reads a copy of the object whose machine field is 0 with llvm-readobj, which must exit
    // cleanly without any complaint.
    Node Readobj(const std::string &options, const std::string &object) const {
        std::vector<uint8_t> bytes = qtest::ReadFileBytes(object);
        EXPECT_GE(bytes.size(), 2u);
        if (bytes.size() >= 2)
            bytes[0] = bytes[1] = 0;
        const std::string copy = m_Dir.File("machine0.obj");
        EXPECT_TRUE(qtest::WriteTextFile(copy, std::string(bytes.begin(), bytes.end())));
        const auto result = qtest::RunConsumer("llvm-readobj-14 " + options, copy);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        for (const std::string &line : qtest::ConsumerComplaints(result.output))
            ADD_FAILURE() << "llvm-readobj " << options << ": " << line;
        return readobj::Parse(result.output);
    }
};

// The kinds of a symbol section's subsections.
std::vector<uint64_t> SubsectionKinds(const Node &section) {
    std::vector<uint64_t> kinds;
    for (const Node *s : section.Children("Subsection"))
        kinds.push_back(readobj::Number(s->Field("SubSectionType")));
    return kinds;
}

// The records of a symbol section's symbols subsections.
std::vector<const Node *> SymbolRecords(const Node &section) {
    std::vector<const Node *> records;
    for (const Node *s : section.Children("Subsection"))
        if (readobj::Number(s->Field("SubSectionType")) == 0xF1)
            for (const Node *record : s->Children())
                records.push_back(record);
    return records;
}

std::string NameOf(const Node &record) {
    for (const char *key : {"DisplayName", "Name"})
        if (const Node &name = record.Child(key); !name.name.empty())
            return name.value;
    return "";
}

// "KIND name" of every record, the kind without its number.
std::vector<std::string> Symbols(const Node &section) {
    std::vector<std::string> out;
    for (const Node *record : SymbolRecords(section)) {
        const std::string name = NameOf(*record);
        out.push_back(readobj::WithoutNumber(record->Field("Kind")) +
                      (name.empty() ? "" : " " + name));
    }
    return out;
}

const Node &RecordNamed(const Node &section, const std::string &name) {
    static const Node none;
    for (const Node *record : SymbolRecords(section))
        if (NameOf(*record) == name)
            return *record;
    return none;
}

// "anchor codeSize file: offset=line ...; " for every line table of a symbol section. A block
// names its file by the offset of its record in the object's one checksum table (in the main
// symbol section); the file is shown relative to `directory`, and the dump's own reading of the
// name must agree.
std::vector<std::string> LineTables(const Node &section, const Node &main,
                                    const std::string &directory) {
    const auto checksums = main.Find("FileChecksum");
    std::vector<std::string> out;
    for (const Node *table : section.Children("FunctionLineTable")) {
        std::ostringstream text;
        text << table->Field("LinkageName") << " " << table->Field("CodeSize") << " ";
        for (const Node *segment : table->Children("FilenameSegment")) {
            const std::string filename = segment->Field("Filename");
            const uint64_t offset = readobj::Number(filename);
            std::string path = "<bad checksum offset " + std::to_string(offset) + ">";
            if (offset % 24 == 0 && offset / 24 < checksums.size())
                path = readobj::WithoutNumber(checksums[offset / 24]->Field("Filename"));
            text << (path.rfind(directory + "/", 0) == 0 ? path.substr(directory.size() + 1)
                                                         : "<" + path + ">");
            if (readobj::WithoutNumber(filename) != path)
                text << " <dumped as " << filename << ">";
            text << ":";
            for (const Node *pair : segment->Children())
                text << " " << pair->name.substr(1) << "=" << pair->Field("LineNumberStart");
            text << "; ";
        }
        out.push_back(text.str());
    }
    return out;
}

// alpha.asm is registered twice; sub/src/alpha.asm shares its base name; kWideName is found by
// the same conversion that names it in the string table.
TEST_F(CodeViewConsumer, EveryObjectKindSectionAndFileIsDumpedAsDescribed) {
    ASSERT_EQ(mkdir("sub", 0700), 0);
    ASSERT_EQ(mkdir("sub/src", 0700), 0);
    Source("alpha.asm", "start: nop\nloop: jmp loop\n");
    Source("beta.asm", "beta\nsource\n");
    Source("gamma.asm", "");         // the digest of zero bytes
    Source("delta.asm", "inline\n"); // named only in a COMDAT section
    Source("sub/src/alpha.asm", "second\nalpha\n");
    Source(kWideName, "wide");
    const std::string object = m_Dir.File("module.obj");
    {
        CoffModule m(object);
        qtest::ModuleBuilder &b = m.Builder();
        DbgScope module = m.OpenModule();
        const BrxHandle text = m.Section(".text", 0x60), data = m.Section(".data", 0x20, false);
        const BrxHandle text2 = m.Section(".text2", 0x20);
        const BrxHandle inl = m.Section(".text$inl", 0x18, true, true);
        const BrxHandle nol = m.Section(".text$nol", 0x10, true, true);
        const BrxHandle lin = m.Section(".text$lin", 0x10, true, true);
        std::map<std::string, DbgSource> files = {
            {"alpha.asm", m.Source("alpha.asm")},
            {"beta.asm", m.Source("beta.asm")},
            {"gamma.asm", m.Source("gamma.asm")},
            {"delta.asm", m.Source("delta.asm")},
            {"alpha.asm again", m.Source("alpha.asm")},
            {"sub/src/alpha.asm", m.Source("sub/src/alpha.asm")},
            {kWideName, b.Source(u"caf\u00E9\u20AC\U0001F600.asm")}};
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
        const BrxHandle mainSymbol = m.Symbol("main", text, 0x10);
        DbgScope p = m.OpenProcedure(mainSymbol, 0x10, 0x40, nearType);
        ASSERT_EQ(b.CodeLabel(mainSymbol), DBG_ERR_NONE); // no record: main's own names it
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
        // Both registrations of alpha.asm name one file and make one run.
        lines(p2, {{"alpha.asm", 20, 0},
                   {"alpha.asm again", 21, 4},
                   {"sub/src/alpha.asm", 22, 8},
                   {kWideName, 23, 0x10}});
        m.Close();
        m.Reenter(module);

        // COMDAT sections: one whose symbols begin with a label, so that its relocations must
        // point behind the headers that its first append brought in front of it; one without
        // lines; one with lines but no records.
        DbgScope c = m.OpenSection(inl);
        ASSERT_EQ(b.CodeLabel(m.Symbol("inl_entry", inl, 2, false, BRX_SYMBOL_PLAIN), nullptr, c),
                  DBG_ERR_NONE);
        DbgScope p3 = m.OpenProcedure(m.Symbol("inl", inl, 0), 0, 0x18, nearType);
        lines(p3, {{"delta.asm", 30, 0}, {"alpha.asm", 31, 6}});
        m.Close();
        m.Reenter(module);
        m.OpenSection(nol);
        m.OpenProcedure(m.Symbol("nol", nol, 0), 0, 0x10);
        m.Close();
        m.Reenter(module);
        lines(m.OpenSection(lin), {{"beta.asm", 50, 4}, {"beta.asm", 51, 8}});

        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(b.Write());
    }
    const Node dump = Readobj("--codeview", object);
    const std::string cwd = WorkingDirectory();

    // Types: the near procedure type first (asked for by main), then the default one (helper),
    // then the far one (second).
    const Node &types = dump.Child("CodeViewTypes");
    std::vector<std::string> typeNames;
    for (const Node *t : types.Children())
        typeNames.push_back(t->name);
    EXPECT_EQ(typeNames, (std::vector<std::string>{"ArgList (0x1000)", "Procedure (0x1001)",
                                                   "ArgList (0x1002)", "Procedure (0x1003)",
                                                   "ArgList (0x1004)", "Procedure (0x1005)"}));
    // Return and argument types show in the procedures' FunctionType fields below, which the dump
    // names from these records.
    EXPECT_EQ(types.Child("Procedure (0x1001)").Field("CallingConvention"), "Generic (0xD)");
    EXPECT_EQ(types.Child("Procedure (0x1005)").Field("CallingConvention"), "NearC (0x0)");

    // Symbol sections: the main one and one for each COMDAT section with records or lines.
    const auto symbolSections = dump.Children("CodeViewDebugInfo");
    ASSERT_EQ(symbolSections.size(), 4u);
    const Node &main = *symbolSections[0], &own = *symbolSections[1], &quiet = *symbolSections[2],
               &linesOnly = *symbolSections[3];
    EXPECT_EQ(SubsectionKinds(main), (std::vector<uint64_t>{0xF1, 0xF3, 0xF4, 0xF2, 0xF2, 0xF2,
                                                            0xF2, 0xF2, 0xF2, 0xF2, 0xF2}));
    EXPECT_EQ(SubsectionKinds(own), (std::vector<uint64_t>{0xF1, 0xF2, 0xF2}));
    EXPECT_EQ(SubsectionKinds(quiet), (std::vector<uint64_t>{0xF1}));
    EXPECT_EQ(SubsectionKinds(linesOnly), (std::vector<uint64_t>{0xF2}));

    EXPECT_EQ(Symbols(main), (std::vector<std::string>{"S_OBJNAME",
                                                       "S_COMPILE3",
                                                       "S_ENVBLOCK",
                                                       "S_CONSTANT K_SMALL",
                                                       "S_CONSTANT K_SHORT",
                                                       "S_CONSTANT K_BIG",
                                                       "S_CONSTANT K_NEG",
                                                       "S_CONSTANT K_WIDE",
                                                       "S_LABEL32 start",
                                                       "S_GPROC32 main",
                                                       "S_LABEL32 loop",
                                                       "S_REGISTER counter",
                                                       "S_REGISTER acc",
                                                       "S_END",
                                                       "S_LPROC32 helper",
                                                       "S_END",
                                                       "S_GDATA32 counter_var",
                                                       "S_LDATA32 table",
                                                       "S_GPROC32 second",
                                                       "S_END"}));
    EXPECT_EQ(Symbols(own),
              (std::vector<std::string>{"S_LABEL32 inl_entry", "S_GPROC32 inl", "S_END"}));
    EXPECT_EQ(Symbols(quiet), (std::vector<std::string>{"S_GPROC32 nol", "S_END"}));

    const auto records = SymbolRecords(main);
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[0]->Field("ObjectName"), object);
    EXPECT_EQ(records[1]->Field("VersionName"), "quillet test");
    EXPECT_EQ(records[1]->Field("Language"), "Masm (0x3)");
    EXPECT_EQ(records[1]->Field("FrontendVersion"), "1.2.3.0");
    EXPECT_EQ(records[2]->Child("Entries").Names(),
              (std::vector<std::string>{"cwd", cwd, "exe", "c:\\tools\\qasm.exe", "src",
                                        "/src/main.asm"}));

    // Fields of the objects, by name.
    const struct {
        const Node *section;
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
    for (const auto &f : fields)
        EXPECT_EQ(RecordNamed(*f.section, f.name).Field(f.field), f.value)
            << f.name << " " << f.field;

    // One checksum table for the object, in the main section: files in the order the entries
    // first name them (delta too, named only in a COMDAT section), MD5 of their bytes.
    std::vector<std::string> checksums, expectedChecksums;
    for (const Node *c : main.Find("FileChecksum"))
        checksums.push_back(readobj::WithoutNumber(c->Field("Filename")) + " " +
                            c->Field("ChecksumKind") + " " + c->Field("ChecksumBytes"));
    for (const std::string name :
         {"alpha.asm", "beta.asm", "gamma.asm", "sub/src/alpha.asm", kWideName, "delta.asm"}) {
        // The dump shows the digest as "(D4 1D ...)".
        std::string digest = Md5Sum(name), bytes;
        std::transform(digest.begin(), digest.end(), digest.begin(), ::toupper);
        for (size_t i = 0; i < digest.size(); i += 2)
            bytes += (i ? " " : "") + digest.substr(i, 2);
        expectedChecksums.push_back(cwd + "/" + name + " MD5 (0x1) (" + bytes + ")");
    }
    EXPECT_EQ(checksums, expectedChecksums);
    for (const Node *section : {&own, &quiet, &linesOnly})
        EXPECT_TRUE(section->Find("FileChecksum").empty());

    // Lines: a subsection per procedure and per stretch of code between procedures, cut where
    // the file changes; offsets count from each subsection's start.
    EXPECT_EQ(LineTables(main, main, cwd),
              (std::vector<std::string>{
                  ".text 0x10 alpha.asm: 0x0=1 0x4=2; ", "main 0x10 alpha.asm: 0x0=10 0x4=11; ",
                  "$$$L1 0x4 beta.asm: 0x0=3; ", "$$$L2 0x1C alpha.asm: 0x0=12; ",
                  "helper 0x20 gamma.asm: 0x0=5 0x8=6; ", "second 0x8 alpha.asm: 0x0=20 0x4=21; ",
                  ".text2 0x8 sub/src/alpha.asm: 0x0=22; ",
                  std::string("$$$L3 0x10 ") + kWideName + ": 0x0=23; "}));
    EXPECT_EQ(LineTables(own, main, cwd),
              (std::vector<std::string>{"inl 0x6 delta.asm: 0x0=30; ",
                                        ".text$inl 0x12 alpha.asm: 0x0=31; "}));
    EXPECT_EQ(LineTables(linesOnly, main, cwd),
              (std::vector<std::string>{".text$lin 0xC beta.asm: 0x0=50 0x4=51; "}));

    // Sections, relocations and the COMDAT association of the symbol sections.
    const Node objectFile = Readobj("--sections --relocations --symbols --expand-relocs", object);
    std::vector<const Node *> sections;
    for (const Node *s : objectFile.Child("Sections").Children("Section"))
        if (readobj::WithoutNumber(s->Field("Name")) == ".debug$S")
            sections.push_back(s);
    ASSERT_EQ(sections.size(), 4u);
    const char *associated[] = {nullptr, ".text$inl", ".text$nol", ".text$lin"};
    // Relocations come in pairs against one symbol, sorted by offset: a section-relative offset
    // (14), then the section index (11) of the segment field after it.
    const std::vector<std::string> relocated[] = {{"start", "main", "loop", "helper", "counter_var",
                                                   "table", "second", ".text", "main", "$$$L1",
                                                   "$$$L2", "helper", "second", ".text2", "$$$L3"},
                                                  {"inl_entry", "inl", "inl", ".text$inl"},
                                                  {"nol"},
                                                  {".text$lin"}};
    for (size_t i = 0; i < sections.size(); ++i) {
        const std::string number = sections[i]->Field("Number");
        const auto characteristics = sections[i]->Child("Characteristics").Names();
        auto has = [&](const std::string &flag) {
            return std::any_of(characteristics.begin(), characteristics.end(),
                               [&](const std::string &c) { return c.rfind(flag + " ", 0) == 0; });
        };
        EXPECT_TRUE(has("IMAGE_SCN_MEM_DISCARDABLE")) << i;
        EXPECT_EQ(has("IMAGE_SCN_LNK_COMDAT"), associated[i] != nullptr) << i;
        for (const Node *symbol : objectFile.Child("Symbols").Children("Symbol")) {
            if (symbol->Field("Section") != ".debug$S (" + number + ")" ||
                symbol->Field("Name") != ".debug$S" || !associated[i])
                continue;
            EXPECT_EQ(symbol->Child("AuxSectionDef").Field("Selection"), "Associative (0x5)");
            EXPECT_EQ(readobj::WithoutNumber(symbol->Child("AuxSectionDef").Field("AssocSection")),
                      associated[i]);
        }
        const auto relocations = objectFile.Child("Relocations")
                                     .Child("Section (" + number + ") .debug$S")
                                     .Children("Relocation");
        ASSERT_EQ(relocations.size(), 2 * relocated[i].size()) << i;
        std::vector<std::string> targets;
        for (size_t r = 0; r < relocations.size(); r += 2) {
            const Node &offset = *relocations[r], &index = *relocations[r + 1];
            EXPECT_EQ(readobj::Number(offset.Field("Type")), 14u) << i << " " << r;
            EXPECT_EQ(readobj::Number(index.Field("Type")), 11u) << i << " " << r;
            EXPECT_EQ(readobj::Number(index.Field("Offset")),
                      readobj::Number(offset.Field("Offset")) + 4)
                << i << " " << r;
            EXPECT_EQ(index.Field("Symbol"), offset.Field("Symbol")) << i << " " << r;
            if (r > 0) {
                EXPECT_GT(readobj::Number(offset.Field("Offset")),
                          readobj::Number(relocations[r - 1]->Field("Offset")))
                    << i << " " << r;
            }
            targets.push_back(index.Field("Symbol"));
        }
        EXPECT_EQ(targets, relocated[i]) << i;
    }
    for (const std::string &relocated : objectFile.Child("Relocations").Names())
        EXPECT_EQ(relocated.find(".debug$T"), std::string::npos) << "the type section has none";
}

// A module without objects or lines holds the object name, the compile record and, unless the
// module has no debugging information, the environment block; no type section, no relocations.
TEST_F(CodeViewConsumer, ModuleRecordsAloneAreDumped) {
    const struct {
        uint32_t noDebugInfo;
        std::vector<std::string> symbols;
    } cases[] = {{0, {"S_OBJNAME", "S_COMPILE3", "S_ENVBLOCK"}}, {1, {"S_OBJNAME", "S_COMPILE3"}}};
    for (const auto &c : cases) {
        const std::string object = m_Dir.File("empty.obj");
        {
            CoffModule m(object);
            m.OpenModule(c.noDebugInfo);
            ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
            ASSERT_TRUE(m.Builder().Write());
        }
        const Node dump = Readobj("--codeview --relocations", object);
        EXPECT_TRUE(dump.Child("CodeViewTypes").name.empty()) << c.noDebugInfo;
        ASSERT_EQ(dump.Child("Relocations").name, "Relocations");
        EXPECT_TRUE(dump.Child("Relocations").children.empty()) << c.noDebugInfo;
        const auto symbolSections = dump.Children("CodeViewDebugInfo");
        ASSERT_EQ(symbolSections.size(), 1u);
        EXPECT_EQ(SubsectionKinds(*symbolSections[0]), std::vector<uint64_t>{0xF1});
        EXPECT_EQ(Symbols(*symbolSections[0]), c.symbols) << c.noDebugInfo;
    }
}

} // namespace
