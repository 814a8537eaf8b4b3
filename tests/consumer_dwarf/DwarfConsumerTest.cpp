// Modules built through the C API, written as ELF32 and ELF64 and read back by binutils and
// LLVM: the decoded line rows must be exactly the line entries described, every entry must be
// shown with its tag, name and attributes, and the verifier must find nothing wrong.
#include "frame/LibraryState.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <regex>
#include <tuple>

namespace {

using qtest::ModuleBuilder;

// A decoded row (file, line, address); a sequence's rows and the address at which it ends. As
// tuples they compare and print without help.
using Row = std::tuple<std::string, uint32_t, uint64_t>;
using Sequence = std::pair<std::vector<Row>, uint64_t>;

// One line entry as described: the file's base name, line and section offset.
struct Described {
    const char *file;
    uint32_t line;
    uint64_t offset;
};

// What a sequence must decode to: the entries sorted by address; it ends on the next multiple
// of 16 above the last row.
Sequence Expect(std::vector<Described> entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Described &a, const Described &b) { return a.offset < b.offset; });
    Sequence s;
    for (const Described &e : entries)
        s.first.emplace_back(e.file, e.line, e.offset);
    const uint64_t last = s.first.empty() ? 0 : std::get<2>(s.first.back());
    s.second = (last / 16 + 1) * 16;
    return s;
}

// The rows of `readelf --debug-dump=decodedline`: "name line address [view] [x]"; a "-" line
// ends a sequence.
std::vector<Sequence> ReadelfSequences(const std::string &output) {
    std::vector<Sequence> sequences;
    Sequence current;
    std::regex row(R"(^(\S+)\s+(\d+|-)\s+(0x[0-9a-f]+|0)\b.*$)");
    for (const std::string &line : qtest::SplitLines(output)) {
        std::smatch m;
        if (!std::regex_match(line, m, row))
            continue;
        uint64_t address = std::stoull(m[3].str(), nullptr, 16);
        if (m[2].str() == "-") {
            current.second = address;
            sequences.push_back(current);
            current = Sequence();
        } else {
            current.first.emplace_back(m[1].str(), uint32_t(std::stoul(m[2].str())), address);
        }
    }
    return sequences;
}

// The entries of `llvm-dwarfdump --debug-info`: tag and, when present, name.
struct Entry {
    uint64_t offset;
    std::string tag;
    std::string name;
    std::map<std::string, std::string> attributes;
};

std::vector<Entry> DwarfdumpEntries(const std::string &output) {
    std::vector<Entry> entries;
    std::regex tag(R"(^(0x[0-9a-f]+):\s+(DW_TAG_\w+|NULL).*$)");
    std::regex attribute(R"(^\s+(DW_AT_\w+)\s+\((.*)\)\s*$)");
    for (const std::string &line : qtest::SplitLines(output)) {
        std::smatch m;
        if (std::regex_match(line, m, tag)) {
            entries.push_back({std::stoull(m[1].str(), nullptr, 16), m[2].str(), "", {}});
        } else if (!entries.empty() && std::regex_match(line, m, attribute)) {
            std::string value = m[2].str();
            if (m[1].str() == "DW_AT_name" && value.size() >= 2)
                entries.back().name = value.substr(1, value.size() - 2);
            entries.back().attributes[m[1].str()] = value;
        }
    }
    return entries;
}

// What a consumer prints about `path`; it must exit cleanly and complain of nothing. The
// verifier's verdict is the one line of its output that may mention errors, and it must say
// there are none.
std::string ReadClean(const std::string &command, const std::string &path) {
    const qtest::CommandResult r = qtest::RunConsumer(command, path);
    EXPECT_EQ(r.exitCode, 0) << command << "\n" << r.output;
    const bool verify = command.find("--verify") != std::string::npos;
    for (const std::string &line : qtest::ConsumerComplaints(r.output))
        if (!verify || line != "No errors.")
            ADD_FAILURE() << command << ": " << line;
    if (verify) {
        EXPECT_NE(r.output.find("No errors."), std::string::npos) << r.output;
    }
    return r.output;
}

// The checks every module passes: readelf decodes exactly the expected rows, the verifier and
// objdump find nothing wrong. Returns the entries that llvm-dwarfdump shows.
std::vector<Entry> ReadModule(const std::string &path, const std::vector<Sequence> &sequences) {
    const std::string rows =
        ReadClean("readelf --debug-dump=info,abbrev,rawline,decodedline -W", path);
    EXPECT_EQ(ReadelfSequences(rows), sequences) << rows;
    ReadClean("llvm-dwarfdump-14 --verify --all", path);
    ReadClean("objdump --dwarf=info,abbrev,line", path);
    return DwarfdumpEntries(ReadClean("llvm-dwarfdump-14 --debug-info --debug-line", path));
}

class DwarfConsumer : public ::testing::TestWithParam<int32_t> {};

// A module with every object kind, two code sections and a data section, procedures with and
// without objects, entry points, six source files in several directories, and line entries
// described out of order in procedures and in sections.
void BuildRichModule(const std::string &path, int32_t format, std::vector<Sequence> &expected) {
    ModuleBuilder m(path, format);
    BrxHandle text = m.AddSection(".text", true, 0x200);
    BrxHandle cold = m.AddSection(".text.cold", true, 0x100);
    BrxHandle data = m.AddSection(".data", false, 0x40);
    BrxHandle p1 = m.AddSymbol("p1", text, 0x00);
    BrxHandle p1Alt = m.AddSymbol(".p1_alt", text, 0x20);
    BrxHandle l1 = m.AddSymbol(".L1", text, 0x10, false);
    BrxHandle p2 = m.AddSymbol("p2", text, 0x80, false);
    BrxHandle p3 = m.AddSymbol("p3", cold, 0x00);
    BrxHandle counter = m.AddSymbol("counter", data, 0x00, true, BRX_SYMBOL_PLAIN);
    BrxHandle buffer = m.AddSymbol("buffer", data, 0x08, false, BRX_SYMBOL_PLAIN);

    DbgScope module = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm 2.1", 0, &module), 0u);
    DbgSource a = m.Source(u"c:\\proj\\src\\a.asm");
    DbgSource b = m.Source(u"c:\\proj\\src\\b.asm");
    DbgSource inc = m.Source(u"c:\\proj\\inc\\macros.inc");
    DbgSource c = m.Source(u"C:\\Proj\\Src\\c.asm"); // the directory of a.asm
    DbgSource plain = m.Source(u"plain.asm");        // no directory
    DbgSource d = m.Source(u"C:\\Work\\d.asm");      // the compilation directory

    int32_t limit = -40000;
    ASSERT_EQ(m.Constant("LIMIT", 6, &limit), 0u);
    double half = 0.5;
    ASSERT_EQ(m.Constant("HALF", 10, &half), 0u);

    DbgType data4 = nullptr, procType = nullptr;
    ASSERT_EQ(Dbg_base_type(5, &data4), 0u);
    ASSERT_EQ(Dbg_procedure_type(data4, 1, &procType), 0u);

    ASSERT_EQ(m.OpenSection(text), 0u);
    ASSERT_EQ(m.Line(c, 50, 0x60), 0u); // the section's own entry
    ASSERT_EQ(m.OpenProcedure({p1, p1Alt}, 0x00, 0x40, nullptr, nullptr, procType, 300), 0u);
    ASSERT_EQ(m.CodeLabel(p1), 0u); // folded into the procedure's entry
    ASSERT_EQ(m.CodeLabel(l1), 0u);
    ASSERT_EQ(m.CodeLabel(p1Alt), 0u); // an entry point
    ASSERT_EQ(m.Register("acc", 7, 200), 0u);
    // Described in decreasing order.
    ASSERT_EQ(m.Line(b, 30, 0x30), 0u);
    ASSERT_EQ(m.Line(inc, 7, 0x24), 0u);
    ASSERT_EQ(m.Line(a, 12, 0x10), 0u);
    ASSERT_EQ(m.Line(a, 10, 0x00), 0u);
    ASSERT_EQ(m.Close(), 0u);
    ASSERT_EQ(m.OpenProcedure({p2}, 0x80, 0x90), 0u); // no objects, default type
    ASSERT_EQ(m.Line(plain, 3, 0x84), 0u);
    ASSERT_EQ(m.Line(d, 200, 0x80), 0u);
    ASSERT_EQ(m.Close(), 0u);
    expected.push_back(Expect({{"c.asm", 50, 0x60},
                               {"b.asm", 30, 0x30},
                               {"macros.inc", 7, 0x24},
                               {"a.asm", 12, 0x10},
                               {"a.asm", 10, 0x00},
                               {"plain.asm", 3, 0x84},
                               {"d.asm", 200, 0x80}}));

    // A data section with labels and rows of its own: it ends its own sequence.
    ASSERT_EQ(Dbg_set_current_scope(module), 0u);
    ASSERT_EQ(m.OpenSection(data), 0u);
    ASSERT_EQ(m.DataLabel(counter, 8), 0u);
    ASSERT_EQ(m.DataLabel(buffer, 0), 0u);
    ASSERT_EQ(m.Line(b, 90, 0x08), 0u);
    ASSERT_EQ(m.Line(b, 88, 0x00), 0u);
    ASSERT_EQ(m.Close(), 0u);
    expected.push_back(Expect({{"b.asm", 90, 0x08}, {"b.asm", 88, 0x00}}));

    ASSERT_EQ(m.OpenSection(cold), 0u);
    ASSERT_EQ(m.OpenProcedure({p3}, 0x00, 0x2e), 0u);
    ASSERT_EQ(m.Line(a, 70, 0x00), 0u);
    ASSERT_EQ(m.Line(inc, 2, 0x2e), 0u);
    ASSERT_EQ(m.Line(a, 71, 0x04), 0u);
    expected.push_back(Expect({{"a.asm", 70, 0x00}, {"macros.inc", 2, 0x2e}, {"a.asm", 71, 0x04}}));

    ASSERT_EQ(m.Emit(), 0u);
    ASSERT_TRUE(m.Write());
}

// Every entry is shown with its tag, name and attributes.
TEST_P(DwarfConsumer, RichModuleIsReadAsDescribed) {
    qtest::TempDir dir;
    const std::string path = dir.File("rich.o");
    std::vector<Sequence> expected;
    BuildRichModule(path, GetParam(), expected);
    ASSERT_FALSE(HasFatalFailure());
    const std::vector<Entry> entries = ReadModule(path, expected);
    // Child scopes come before the scope's own objects; types stand with the module's objects.
    std::vector<std::pair<std::string, std::string>> want = {
        {"DW_TAG_compile_unit", "main.asm"},
        // The main-symbol label left p1's list; the last object took its place.
        {"DW_TAG_subprogram", "p1"},
        {"DW_TAG_constant", "acc"},
        {"DW_TAG_label", ".L1"},
        {"DW_TAG_entry_point", "p1_alt"},
        {"NULL", ""},
        {"DW_TAG_subprogram", "p2"},
        {"DW_TAG_variable", "counter"},
        {"DW_TAG_label", "buffer"},
        {"DW_TAG_subprogram", "p3"},
        // A type joins the module's objects when an object first takes it, before that object.
        {"DW_TAG_base_type", "data4"}, // signed, of LIMIT
        {"DW_TAG_constant", "LIMIT"},
        {"DW_TAG_base_type", "real8"},
        {"DW_TAG_constant", "HALF"},
        {"DW_TAG_base_type", "void"},  // the default procedure type's return type
        {"DW_TAG_base_type", "data4"}, // unsigned, returned by p1's type
        {"DW_TAG_base_type", "data8"}, // unsigned, of acc
        {"DW_TAG_base_type", "data8"}, // signed, of counter
        {"NULL", ""},
    };
    std::vector<std::pair<std::string, std::string>> got;
    for (const Entry &e : entries)
        got.push_back({e.tag, e.name});
    EXPECT_EQ(got, want);
    if (got != want)
        return;
    const Entry &unit = entries[0];
    EXPECT_EQ(unit.attributes.at("DW_AT_comp_dir"), "\"c:\\\\work\""); // printed escaped
    EXPECT_EQ(unit.attributes.at("DW_AT_producer"), "\"qasm 2.1\"");
    EXPECT_EQ(unit.attributes.count("DW_AT_low_pc"), 0u) << "two code sections: no range";
    const Entry &p1 = entries[1];
    EXPECT_NE(p1.attributes.at("DW_AT_type").find("\"data4\""), std::string::npos);
    EXPECT_EQ(p1.attributes.at("DW_AT_external"), "0x01");
    EXPECT_NE(p1.attributes.at("DW_AT_return_addr").find("DW_OP_regx"), std::string::npos);
    EXPECT_NE(entries[2].attributes.at("DW_AT_location").find("DW_OP_regx 0xc7"),
              std::string::npos);
    EXPECT_EQ(entries[3].attributes.at("DW_AT_external"), "0x00");
    EXPECT_EQ(entries[6].attributes.count("DW_AT_type"), 0u) << "default type: no reference";
    EXPECT_EQ(entries[6].attributes.at("DW_AT_external"), "0x00");
    EXPECT_NE(entries[7].attributes.at("DW_AT_type").find("\"data8\""), std::string::npos);
    EXPECT_NE(entries[11].attributes.at("DW_AT_const_value").find("c0 63 ff ff"), std::string::npos)
        << entries[11].attributes.at("DW_AT_const_value");
    EXPECT_NE(entries[11].attributes.at("DW_AT_type").find("\"data4\""), std::string::npos);

    // A procedure's sibling is the first entry after it and everything under it.
    auto sibling = [&](size_t i) {
        return std::stoull(entries[i].attributes.at("DW_AT_sibling"), nullptr, 16);
    };
    EXPECT_EQ(sibling(1), entries[6].offset) << "p1: after its children and their null entry";
    EXPECT_EQ(sibling(6), entries[7].offset) << "p2: right after its own entry";
    EXPECT_EQ(sibling(9), entries[10].offset);
    // Type references name the entries of their types.
    auto typeOffset = [&](size_t i) {
        return std::stoull(entries[i].attributes.at("DW_AT_type"), nullptr, 16);
    };
    EXPECT_EQ(typeOffset(1), entries[15].offset) << "p1 returns data4 unsigned";
    EXPECT_EQ(typeOffset(7), entries[17].offset) << "counter is data8 signed";
    EXPECT_EQ(typeOffset(11), entries[10].offset) << "LIMIT is data4 signed";
}

// An empty module still gets its three sections, a unit and a line-program header.
TEST_P(DwarfConsumer, EmptyModuleIsValid) {
    qtest::TempDir dir;
    const std::string path = dir.File("empty.o");
    {
        ModuleBuilder m(path, GetParam());
        ASSERT_EQ(m.OpenModule(), 0u);
        ASSERT_EQ(m.Emit(), 0u);
        ASSERT_TRUE(m.Write());
    }
    ReadClean("readelf --debug-dump=info,abbrev,rawline,decodedline -W", path);
    // The verifier warns of a unit that declares children and has none, and finds no error.
    const qtest::CommandResult r = qtest::RunConsumer("llvm-dwarfdump-14 --verify --all", path);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("No errors."), std::string::npos) << r.output;
}

// Legal modules of unusual shapes: each is read by readelf without a complaint and passes the
// verifier, and what it is about shows in the dump.
struct LegalModule {
    const char *name; // of the test
    const char *what;
    // Describes the module on an opened file with .text (code, 0x40 bytes) and .data.
    std::function<void(ModuleBuilder &, BrxHandle text, BrxHandle data)> describe;
    // The sequences readelf must decode.
    std::vector<Sequence> sequences;
    // Checks on the entries that llvm-dwarfdump shows.
    std::function<void(const std::vector<Entry> &)> entries;
};

// Every DW_AT_type names an entry that stands in the dump.
void TypesPointAtEntries(const std::vector<Entry> &entries) {
    std::map<uint64_t, const Entry *> byOffset;
    for (const Entry &e : entries)
        byOffset[e.offset] = &e;
    size_t typed = 0;
    for (const Entry &e : entries) {
        auto type = e.attributes.find("DW_AT_type");
        if (type == e.attributes.end())
            continue;
        ++typed;
        auto target = byOffset.find(std::stoull(type->second, nullptr, 16));
        ASSERT_NE(target, byOffset.end()) << e.name << ": " << type->second;
        EXPECT_EQ(target->second->tag, "DW_TAG_base_type") << e.name;
    }
    EXPECT_GE(typed, 2u);
}

std::vector<LegalModule> AllLegalModules() {
    return {
        {"LineOneSameLineInAnotherFileAndEntriesPastTheEnd",
         "a first entry on line 1, the same line in another file, entries past the section's end",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle) {
             ASSERT_EQ(m.OpenModule(), 0u);
             DbgSource a = m.Source(u"c:\\src\\a.asm"), b = m.Source(u"c:\\src\\b.inc");
             ASSERT_EQ(m.OpenSection(text), 0u);
             for (auto [source, line, offset] : {std::tuple{a, 1u, 0x0},
                                                 {b, 1u, 0x4},
                                                 {a, 1u, 0x8},
                                                 {a, 1u, 0xa},
                                                 {a, 2u, 0xc},
                                                 {a, 3u, 0x38},
                                                 {a, 4u, 0x48}})
                 ASSERT_EQ(m.Line(source, line, offset), 0u);
         },
         {Expect({{"a.asm", 1, 0x0},
                  {"b.inc", 1, 0x4},
                  {"a.asm", 1, 0x8},
                  {"a.asm", 2, 0xc},
                  {"a.asm", 3, 0x38},
                  {"a.asm", 4, 0x48}})},
         nullptr},
        {"EmptySourceNameAndEmptyDirectoryPart",
         "an empty source name, and one whose directory part is empty",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle) {
             ASSERT_EQ(m.OpenModule(u"c:\\work", u""), 0u);
             DbgSource empty = m.Source(u""), root = m.Source(u"\\root.s");
             DbgSource after = m.Source(u"c:\\src\\after.s");
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(m.Line(empty, 5, 0x0), 0u);
             ASSERT_EQ(m.Line(root, 6, 0x4), 0u);
             ASSERT_EQ(m.Line(after, 7, 0x8), 0u);
         },
         {Expect({{"<unnamed>", 5, 0x0}, {"\\root.s", 6, 0x4}, {"after.s", 7, 0x8}})},
         nullptr},
        {"CodeSectionsWithoutSourceFiles",
         "code sections but no source files",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle) {
             ASSERT_EQ(m.OpenModule(), 0u);
             BrxHandle start = m.AddSymbol("start", text, 0);
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(m.OpenProcedure({start}, 0, 0x10), 0u);
         },
         {},
         nullptr},
        {"CodeSectionWithoutRows",
         "a code section without rows beside one with rows",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle) {
             DbgScope module = nullptr;
             ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm", 0, &module), 0u);
             BrxHandle cold = m.AddSection(".text.cold", true, 0x20);
             DbgSource a = m.Source(u"a.asm");
             ASSERT_EQ(m.OpenSection(cold), 0u);
             ASSERT_EQ(Dbg_set_current_scope(module), 0u);
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(m.Line(a, 9, 0x10), 0u);
         },
         {Expect({{"a.asm", 9, 0x10}})},
         nullptr},
        {"TypedObjectsWithoutDebuggingInformation",
         "typed objects in a module without debugging information, among them a typed "
         "procedure created before the module was opened",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle data) {
             BrxHandle start = m.AddSymbol("start", text, 0);
             BrxHandle counter = m.AddSymbol("counter", data, 0, true, BRX_SYMBOL_PLAIN);
             DbgType data2 = nullptr, returnsData2 = nullptr;
             ASSERT_EQ(Dbg_base_type(3, &data2), 0u);
             ASSERT_EQ(Dbg_procedure_type(data2, 1, &returnsData2), 0u);
             DbgEntryList list{&start, 1};
             uint64_t end = 0x10;
             DbgObjectProp props[] = {{DBG_PROP_ENTRY_LIST, &list},
                                      {DBG_PROP_END, &end},
                                      {DBG_PROP_PROC_TYPE, &returnsData2}};
             DbgObject proc = nullptr;
             ASSERT_EQ(Dbg_create_object(DBG_OBJ_PROCEDURE, props, 3, nullptr, &proc), 0u);
             ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm", 1), 0u);
             int32_t minusOne = -1;
             ASSERT_EQ(m.Constant("K", 6, &minusOne), 0u);
             ASSERT_EQ(m.OpenSection(data), 0u);
             ASSERT_EQ(m.DataLabel(counter, 8), 0u);
             ASSERT_EQ(m.Close(), 0u);
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(Dbg_open_procedure_scope(proc, nullptr), 0u);
             ASSERT_EQ(m.Register("acc", 7, 3), 0u);
         },
         {},
         TypesPointAtEntries},
        {"ProceduresOfEveryShapeInASectionOpenedTwice",
         "procedures typed or not, with objects or not, and one whose start is not its main "
         "symbol's address (it loses its type at output), in two scopes of one section",
         [](ModuleBuilder &m, BrxHandle, BrxHandle) {
             BrxHandle text = m.AddSection(".text.shapes", true, 0x100);
             std::vector<BrxHandle> entries;
             for (int i = 0; i < 5; ++i)
                 entries.push_back(m.AddSymbol("f" + std::to_string(i), text, 0x20 * i));
             BrxHandle inner = m.AddSymbol("inner", text, 0x28);
             DbgScope module = nullptr, scopes[2] = {};
             ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm", 0, &module), 0u);
             DbgSource a = m.Source(u"c:\\src\\a.asm");
             DbgType data2 = nullptr, typed = nullptr;
             ASSERT_EQ(Dbg_base_type(3, &data2), 0u);
             ASSERT_EQ(Dbg_procedure_type(data2, 2, &typed), 0u);
             int16_t one = 1;
             const struct {
                 bool typed, objects;
                 uint64_t start;
             } shapes[] = {{true, true, 0x00},
                           {true, false, 0x20},
                           {false, true, 0x40},
                           {false, false, 0x60},
                           {true, true, 0x81}};
             for (int i = 0; i < 5; ++i) {
                 // f0 to f2 in one scope of the section, f3 and f4 in a second one.
                 if (i == 0 || i == 3) {
                     ASSERT_EQ(Dbg_set_current_scope(module), 0u);
                     ASSERT_EQ(m.OpenSection(text, &scopes[i == 3]), 0u);
                 }
                 ASSERT_EQ(m.OpenProcedure({entries[i]}, shapes[i].start, shapes[i].start + 0x20,
                                           nullptr, nullptr, shapes[i].typed ? typed : nullptr, 9),
                           0u);
                 if (shapes[i].objects) {
                     ASSERT_EQ(m.Constant("k" + std::to_string(i), 4, &one), 0u);
                     if (i == 0) {
                         ASSERT_EQ(m.CodeLabel(inner), 0u);
                     }
                 }
                 ASSERT_EQ(m.Close(), 0u);
             }
             // Each scope has a sequence of its own; line 5 repeats and gives no row.
             for (auto [scope, line, offset] : {std::tuple{scopes[0], 1u, 0x00},
                                                {scopes[0], 5u, 0x04},
                                                {scopes[0], 5u, 0x08},
                                                {scopes[0], 6u, 0x0c},
                                                {scopes[1], 20u, 0x64},
                                                {scopes[1], 21u, 0x90}})
                 ASSERT_EQ(m.Line(a, line, offset, scope), 0u);
         },
         {Expect({{"a.asm", 1, 0x00}, {"a.asm", 5, 0x04}, {"a.asm", 6, 0x0c}}),
          Expect({{"a.asm", 20, 0x64}, {"a.asm", 21, 0x90}})},
         [](const std::vector<Entry> &entries) {
             std::map<std::string, const Entry *> procedures;
             for (const Entry &e : entries)
                 if (e.tag == "DW_TAG_subprogram")
                     procedures[e.name] = &e;
             ASSERT_EQ(procedures.size(), 5u);
             // Typed as described, except f4, whose start is not its symbol's address.
             for (auto [name, typed] : std::vector<std::pair<std::string, bool>>{
                      {"f0", true}, {"f1", true}, {"f2", false}, {"f3", false}, {"f4", false}})
                 EXPECT_EQ(procedures[name]->attributes.count("DW_AT_type"), typed ? 1u : 0u)
                     << name;
         }},
        {"TextEnteredTwiceKeepsTheUnitRange",
         "a module whose .text is entered twice keeps its address range",
         [](ModuleBuilder &m, BrxHandle text, BrxHandle data) {
             DbgScope module = nullptr;
             ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm", 0, &module), 0u);
             DbgSource a = m.Source(u"a.asm");
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(m.Line(a, 2, 0x0), 0u);
             ASSERT_EQ(Dbg_set_current_scope(module), 0u);
             ASSERT_EQ(m.OpenSection(data), 0u);
             ASSERT_EQ(Dbg_set_current_scope(module), 0u);
             ASSERT_EQ(m.OpenSection(text), 0u);
             ASSERT_EQ(m.Line(a, 3, 0x20), 0u);
         },
         {Expect({{"a.asm", 2, 0x0}}), Expect({{"a.asm", 3, 0x20}})},
         [](const std::vector<Entry> &entries) {
             ASSERT_FALSE(entries.empty());
             EXPECT_EQ(entries[0].tag, "DW_TAG_compile_unit");
             EXPECT_EQ(entries[0].attributes.count("DW_AT_low_pc"), 1u);
             EXPECT_EQ(entries[0].attributes.count("DW_AT_high_pc"), 1u);
         }},
    };
}

class LegalModules : public ::testing::TestWithParam<std::tuple<int32_t, size_t>> {};

TEST_P(LegalModules, AreValid) {
    int32_t format = std::get<0>(GetParam());
    const LegalModule c = AllLegalModules()[std::get<1>(GetParam())];
    SCOPED_TRACE(c.what);
    qtest::TempDir dir;
    std::string path = dir.File("legal.o");
    {
        ModuleBuilder m(path, format);
        BrxHandle text = m.AddSection(".text", true, 0x40);
        BrxHandle data = m.AddSection(".data", false, 0x10);
        c.describe(m, text, data);
        ASSERT_FALSE(HasFatalFailure());
        // A label in the module, so that the unit has a child (the verifier warns about a unit
        // that declares children and has none).
        BrxHandle mark = m.AddSymbol("mark", text, 0x3c);
        ASSERT_EQ(m.CodeLabel(mark, nullptr, reinterpret_cast<DbgScope>(State().moduleRoot)), 0u);
        ASSERT_EQ(m.Emit(), 0u);
        ASSERT_TRUE(m.Write());
    }
    const std::vector<Entry> entries = ReadModule(path, c.sequences);
    if (c.entries)
        c.entries(entries);
}

INSTANTIATE_TEST_SUITE_P(Elf, LegalModules,
                         ::testing::Combine(::testing::Values(BRX_FORMAT_ELF32, BRX_FORMAT_ELF64),
                                            ::testing::Range(size_t(0), AllLegalModules().size())),
                         [](const ::testing::TestParamInfo<std::tuple<int32_t, size_t>> &info) {
                             return std::string(AllLegalModules()[std::get<1>(info.param)].name) +
                                    (std::get<0>(info.param) == BRX_FORMAT_ELF32 ? "Elf32"
                                                                                 : "Elf64");
                         });

INSTANTIATE_TEST_SUITE_P(Elf, DwarfConsumer, ::testing::Values(BRX_FORMAT_ELF32, BRX_FORMAT_ELF64),
                         [](const ::testing::TestParamInfo<int32_t> &info) {
                             return info.param == BRX_FORMAT_ELF32 ? "Elf32" : "Elf64";
                         });

} // namespace
