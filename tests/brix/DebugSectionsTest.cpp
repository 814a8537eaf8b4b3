// What a reader of debugging sections asks of brix in objects made by other tools at test time:
// compressed sections come back decompressed, and the relocations of each machine come back as
// the values they give their fields.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace brixtest;

namespace {

// A field at `offset` of .debug_info: its size, the section its value lies in (by name, empty for
// none) and the value.
struct Field {
    uint64_t offset;
    uint32_t size;
    std::string section;
    uint64_t value;
};

struct MachineCase {
    const char *name;
    const char *assemble; // the assembler's command line up to the source
    const char *source;
    std::vector<Field> fields;
};

// .La lies 8 bytes into .text and .Lb 8 bytes further. Relocations against local labels are made
// against the section (RELA addend, or REL value in place for i386) or, on RISC-V, against the
// labels themselves; a difference across relaxable code is an add/subtract pair.
const char *const kAbsolute = ".text\n.space 8\n.La:\n.space 8\n.Lb:\n"
                              ".section .debug_info,\"\",@progbits\n.long .La+3\n.quad .Lb\n";

const MachineCase kMachines[] = {
    {"X86_64",
     "llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu",
     kAbsolute,
     {{0, 4, ".text", 11}, {4, 8, ".text", 16}}},
    {"AArch64",
     "llvm-mc-14 -filetype=obj -triple aarch64-linux-gnu",
     kAbsolute,
     {{0, 4, ".text", 11}, {4, 8, ".text", 16}}},
    {"I386",
     "llvm-mc-14 -filetype=obj -triple i386-linux-gnu",
     ".text\n.space 8\n.La:\n.space 8\n.Lb:\n"
     ".section .debug_info,\"\",@progbits\n.long .La+3\n.long .Lb\n",
     {{0, 4, ".text", 11}, {4, 4, ".text", 16}}},
    {"RiscV64",
     "llvm-mc-14 -filetype=obj -triple riscv64-linux-gnu -mattr=+relax",
     ".text\n.space 8\n.La:\ncall g\n.Lb:\n"
     ".section .debug_info,\"\",@progbits\n.long .La+3\n.quad .Lb\n.long .Lb-.La\n",
     {{0, 4, ".text", 11}, {4, 8, ".text", 16}, {12, 4, "", 8}}},
};

class ResolvedRelocations : public ::testing::TestWithParam<MachineCase> {};

TEST_P(ResolvedRelocations, GiveEachFieldItsValue) {
    const MachineCase &c = GetParam();
    TempDir dir;
    std::string source = dir.File("in.s"), object = dir.File("in.o");
    ASSERT_TRUE(qtest::WriteTextFile(source, c.source));
    CommandResult made = RunCommand(std::string(c.assemble) + " " + source + " -o " + object);
    ASSERT_EQ(made.exitCode, 0) << made.output;

    uint32_t mode = 0;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(object.c_str(), &mode, &file, 0), BRX_OK);
    BrxHandle info = FindSection(file, ".debug_info");
    BrxResolvedList list{0, 0, nullptr};
    ASSERT_EQ(_brx_get_keyed(info, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list, 0), BRX_OK);
    ASSERT_EQ(list.count, c.fields.size());
    std::vector<BrxResolvedRelocation> entries(list.count);
    list.entries = entries.data();
    ASSERT_EQ(_brx_get_keyed(info, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list, 0), BRX_OK);
    ASSERT_EQ(list.count, c.fields.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(entries[i].offset, c.fields[i].offset);
        EXPECT_EQ(entries[i].size, c.fields[i].size);
        EXPECT_EQ(entries[i].value, c.fields[i].value);
        EXPECT_EQ(entries[i].section ? SectionName(entries[i].section) : "", c.fields[i].section);
    }
    // A page from the middle, and past the end.
    list = BrxResolvedList{5, 1, entries.data()};
    ASSERT_EQ(_brx_get_keyed(info, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list, 0), BRX_OK);
    EXPECT_EQ(list.count, c.fields.size() - 1);
    EXPECT_EQ(entries[0].offset, c.fields[1].offset);
    list = BrxResolvedList{5, 9, entries.data()};
    ASSERT_EQ(_brx_get_keyed(info, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list, 0), BRX_OK);
    EXPECT_EQ(list.count, 0u);
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list, 0),
              BRX_ERR_NOT_A_SECTION);
    _brx_close_file(file);
}

INSTANTIATE_TEST_SUITE_P(Machines, ResolvedRelocations, ::testing::ValuesIn(kMachines),
                         [](const ::testing::TestParamInfo<MachineCase> &info) {
                             return std::string(info.param.name);
                         });

struct CompressionCase {
    const char *name;
    const char *triple;
    const char *compress; // objcopy's option
    int32_t readResult;
};

const CompressionCase kCompressions[] = {
    {"Zlib64", "x86_64-linux-gnu", "--compress-debug-sections=zlib", BRX_OK},
    {"Zlib32", "i386-linux-gnu", "--compress-debug-sections=zlib", BRX_OK},
    {"Zstd", "x86_64-linux-gnu", "--compress-debug-sections=zstd", BRX_ERR_UNSUPPORTED_COMPRESSION},
};

// Where .debug_line's contents start in the file and its flags, as readelf shows them.
struct SectionHeader {
    uint64_t offset = 0;
    std::string flags;
};
SectionHeader LineSectionHeader(const std::string &object) {
    SectionHeader header;
    for (const std::string &line :
         qtest::SplitLines(RunCommand("readelf -S -W " + object).output)) {
        size_t at = line.find("] .debug_line ");
        if (at == std::string::npos)
            continue;
        // name, type, address, offset, size, entry size, then the flags when there are any
        std::istringstream fields(line.substr(at + 2));
        std::string name, type, address, offset, size, entrySize, flags;
        fields >> name >> type >> address >> offset >> size >> entrySize >> flags;
        header.offset = std::stoull(offset, nullptr, 16);
        header.flags = flags;
    }
    return header;
}

// Assembles a line table large enough for objcopy to compress it into `plain`, and the copy that
// `compress` (objcopy's option) makes of it into `packed`.
void MakeCompressedCopy(const TempDir &dir, const std::string &triple, const std::string &compress,
                        std::string &plain, std::string &packed) {
    std::string source = dir.File("in.s"), text;
    plain = dir.File("plain.o");
    packed = dir.File("z.o");
    for (int i = 0; i < 300; ++i)
        text += " nop\n";
    ASSERT_TRUE(qtest::WriteTextFile(source, text));
    CommandResult made =
        RunCommand("llvm-mc-14 -filetype=obj -g -triple " + triple + " " + source + " -o " + plain +
                   " && objcopy " + compress + " " + plain + " " + packed);
    ASSERT_EQ(made.exitCode, 0) << made.output;
    ASSERT_EQ(LineSectionHeader(packed).flags, "C") << "objcopy left .debug_line as it was";
}

class CompressedSections : public ::testing::TestWithParam<CompressionCase> {};

// The debugging sections of a compressed copy read as the plain object's do, byte for byte, and
// their relocations give the same values; a compression that is not zlib has a result of its own.
TEST_P(CompressedSections, ReadAsThePlainObject) {
    const CompressionCase &c = GetParam();
    TempDir dir;
    std::string plain, packed;
    ASSERT_NO_FATAL_FAILURE(MakeCompressedCopy(dir, c.triple, c.compress, plain, packed));

    uint32_t mode = 0;
    BrxHandle a = 0, b = 0;
    ASSERT_EQ(_brx_open_file(plain.c_str(), &mode, &a, 0), BRX_OK);
    ASSERT_EQ(_brx_open_file(packed.c_str(), &mode, &b, 0), BRX_OK);
    for (const char *name : {".debug_line", ".debug_info", ".debug_abbrev"}) {
        SCOPED_TRACE(name);
        BrxHandle original = FindSection(a, name), compressed = FindSection(b, name);
        std::vector<uint8_t> bytes = SectionBytes(original);
        ASSERT_FALSE(bytes.empty());
        EXPECT_EQ(U64(compressed, BRX_KEY_SECTION_SIZE), bytes.size());
        std::vector<uint8_t> read(bytes.size());
        BrxBytes request{read.size(), 0, read.data()};
        // Objects this small have only their line table compressed.
        int32_t expected = std::string(name) == ".debug_line" ? c.readResult : BRX_OK;
        ASSERT_EQ(_brx_get_keyed(compressed, BRX_KEY_SECTION_DATA, &request, &request, 0),
                  expected);
        if (expected != BRX_OK)
            continue;
        EXPECT_EQ(read, bytes);
        BrxResolvedList plainList{0, 0, nullptr}, packedList{0, 0, nullptr};
        ASSERT_EQ(_brx_get_keyed(original, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &plainList, 0),
                  BRX_OK);
        ASSERT_EQ(_brx_get_keyed(compressed, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &packedList, 0),
                  BRX_OK);
        EXPECT_EQ(packedList.count, plainList.count);
    }
    _brx_close_file(a);
    _brx_close_file(b);
}

INSTANTIATE_TEST_SUITE_P(Kinds, CompressedSections, ::testing::ValuesIn(kCompressions),
                         [](const ::testing::TestParamInfo<CompressionCase> &info) {
                             return std::string(info.param.name);
                         });

// A stream that holds less than its header claims, or is damaged, is refused when read; the file
// itself still opens.
TEST(CompressedSections, DamagedStreamsAreRefusedWhenRead) {
    TempDir dir;
    std::string plain, packed;
    ASSERT_NO_FATAL_FAILURE(MakeCompressedCopy(dir, "x86_64-linux-gnu",
                                               "--compress-debug-sections=zlib", plain, packed));
    uint64_t offset = LineSectionHeader(packed).offset;
    ASSERT_NE(offset, 0u);
    std::vector<uint8_t> image = ReadFileBytes(packed);
    const struct {
        const char *name;
        uint64_t at; // from the start of the compression header
        uint8_t value;
    } damages[] = {
        {"SizeLargerThanTheStream", 9, 0x01}, // the 64-bit ch_size grows by 256
        {"DamagedStream", 24 + 2, 0xff},      // inside the zlib stream
    };
    for (const auto &d : damages) {
        SCOPED_TRACE(d.name);
        std::vector<uint8_t> copy = image;
        copy[offset + d.at] ^= d.value;
        std::string path = dir.File(std::string(d.name) + ".o");
        WriteBytes(path, copy);
        uint32_t mode = 0;
        BrxHandle file = 0;
        ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), BRX_OK);
        BrxHandle line = FindSection(file, ".debug_line");
        uint8_t byte = 0;
        BrxBytes request{1, 0, &byte};
        EXPECT_EQ(_brx_get_keyed(line, BRX_KEY_SECTION_DATA, &request, &request, 0),
                  BRX_ERR_FAILED);
        _brx_close_file(file);
    }
}

} // namespace
