// Files are streamed to disk while they are serialised: the bytes that reach the file must be
// the ones an in-memory buffer would hold, patches included, whichever side of a flush they
// land on; a refused file leaves nothing behind; and objects far larger than the buffer read
// back whole.
#include "ByteBuffer.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sys/stat.h>

using namespace brixtest;

namespace {

bool Exists(const std::string &path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// The flush size of the streaming buffer is 64 KiB; the scripts cross it on purpose.
constexpr size_t kChunk = 64 * 1024;

struct SinkScript {
    const char *what;
    std::function<void(brix::CByteBuffer &)> run;
};

const SinkScript kScripts[] = {
    {"nothing written", [](brix::CByteBuffer &) {}},
    {"a patch of bytes still in the buffer",
     [](brix::CByteBuffer &b) {
         b.U32(0);
         b.U64(0x1122334455667788ull);
         b.PatchU32(0, 0xdeadbeef);
     }},
    {"a header patched after megabytes of fields",
     [](brix::CByteBuffer &b) {
         b.Zeros(64);
         for (uint32_t i = 0; i < 300000; ++i)
             b.U32(i * 2654435761u);
         std::vector<uint8_t> header(64);
         for (size_t i = 0; i < header.size(); ++i)
             header[i] = uint8_t(0x40 + i);
         b.PatchBytes(0, header.data(), header.size());
         b.PatchWord(kChunk + 4, 0x0102030405060708ull, 8);
     }},
    {"a patch straddling the flush boundary",
     [](brix::CByteBuffer &b) {
         b.Zeros(kChunk - 2);
         b.U32(0);                           // fills the buffer: everything so far leaves
         b.U32(0);                           // stays in the buffer
         b.PatchU32(kChunk, 0xa1b2c3d4);     // two bytes flushed, two buffered
         b.PatchU16(kChunk - 3, 0x5aa5);     // flushed only
         b.PatchU32(kChunk - 4, 0x01020304); // overlaps the previous patch
     }},
    {"large blocks and zeros go straight through",
     [](brix::CByteBuffer &b) {
         std::vector<uint8_t> block(200000);
         for (size_t i = 0; i < block.size(); ++i)
             block[i] = uint8_t(i * 7);
         b.U16(0xffff);
         b.Bytes(block.data(), block.size());
         b.AlignTo(4096);
         b.Zeros(3 * kChunk + 5);
         b.FixedString("name", 8);
         b.Bytes(block.data(), 100);
         b.PatchU16(0, 0x1234);
         b.PatchU32(200002, 0xcafef00d);
     }},
};

TEST(StreamedWrite, FileHoldsWhatAMemoryBufferHolds) {
    TempDir dir;
    for (const SinkScript &script : kScripts) {
        brix::CByteBuffer memory;
        script.run(memory);
        std::string path = dir.File("stream.bin");
        {
            brix::CByteBuffer stream(path);
            script.run(stream);
            EXPECT_EQ(stream.Size(), memory.Size()) << script.what;
            ASSERT_TRUE(stream.Finish()) << script.what;
        }
        std::vector<uint8_t> written = ReadFileBytes(path);
        ASSERT_EQ(written.size(), memory.Data().size()) << script.what;
        EXPECT_TRUE(written == memory.Data()) << script.what;
        std::remove(path.c_str());
    }
}

TEST(StreamedWrite, AbandonedAndUnwritableFilesLeaveNothing) {
    TempDir dir;
    for (size_t bytes : {size_t(10), 5 * kChunk}) {
        std::string path = dir.File("abandoned.bin");
        brix::CByteBuffer stream(path);
        stream.Zeros(bytes);
        stream.Abandon();
        EXPECT_FALSE(Exists(path)) << bytes;
        EXPECT_FALSE(stream.Finish()) << bytes;
    }
    brix::CByteBuffer nowhere(dir.File("no/such/dir/x.bin"));
    nowhere.Zeros(2 * kChunk);
    EXPECT_FALSE(nowhere.Finish());
}

// A COFF section alignment above 8192 bytes cannot be encoded: the file is refused, and neither
// a new file nor a change to an existing one is left.
TEST(StreamedWrite, RefusedFileIsNotCreated) {
    TempDir dir;
    std::string path = dir.File("refused.obj");
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_COFF, &file), 0);
    BrxHandle section = AddSection(file, ".big", BRX_SECTION_CODE, 16384);
    AppendBytes(section, std::vector<uint8_t>(3 * kChunk, 0x90));
    EXPECT_NE(_brx_write_file(file), 0);
    EXPECT_FALSE(Exists(path));
    _brx_close_file(file);
}

struct FormatCase {
    const char *name;
    int32_t format;
    uint32_t relocationType;
};

// Objects several times the buffer size: every patched pointer (section data, relocations,
// symbol table, section headers) lands in bytes that were flushed long before.
TEST(StreamedWrite, LargeObjectsReadBackWhole) {
    const FormatCase formats[] = {{"elf64", BRX_FORMAT_ELF64, 1},
                                  {"elf32", BRX_FORMAT_ELF32, 1},
                                  {"coff", BRX_FORMAT_COFF, 6}};
    constexpr uint32_t kSymbols = 6000, kRelocations = 9000;
    TempDir dir;
    for (const FormatCase &c : formats) {
        std::string path = dir.File(std::string("large.") + c.name);
        BrxHandle file = 0;
        ASSERT_EQ(_brx_new_file(path.c_str(), c.format, &file), 0);
        BrxHandle code = AddSection(file, ".text", BRX_SECTION_CODE, 16);
        BrxHandle data = AddSection(file, ".data", 0, 8);
        std::vector<uint8_t> bytes(5 * kChunk + 13);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = uint8_t(i * 31 + (i >> 9));
        AppendBytes(code, bytes);
        AppendBytes(data, std::vector<uint8_t>(bytes.rbegin(), bytes.rbegin() + 4096));
        std::vector<BrxHandle> symbols;
        for (uint32_t i = 0; i < kSymbols; ++i) {
            std::string name = "a_rather_long_symbol_" + std::to_string(i);
            symbols.push_back(AddSymbol(file, name.c_str(),
                                        i % 3 ? BRX_BINDING_LOCAL : BRX_BINDING_GLOBAL, 0,
                                        i % 2 ? code : data, i * 4));
        }
        for (uint32_t i = 0; i < kRelocations; ++i)
            AddRelocation(code, c.relocationType, symbols[(i * 7) % kSymbols], i * 8);
        ASSERT_EQ(_brx_write_file(file), 0) << c.name;
        _brx_close_file(file);

        BrxHandle read = 0;
        ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0) << c.name;
        BrxHandle readCode = FindSection(read, ".text");
        ASSERT_NE(readCode, 0u) << c.name;
        EXPECT_TRUE(SectionBytes(readCode) == bytes) << c.name;
        EXPECT_EQ(SectionBytes(FindSection(read, ".data")).size(), 4096u) << c.name;
        std::vector<BrxHandle> relocations = Relocations(readCode);
        ASSERT_EQ(relocations.size(), size_t(kRelocations)) << c.name;
        EXPECT_EQ(U64(relocations.back(), BRX_KEY_RELOC_OFFSET), uint64_t(kRelocations - 1) * 8);
        EXPECT_EQ(SymbolName(BrxHandle(U32(relocations.back(), BRX_KEY_RELOC_TARGET))),
                  "a_rather_long_symbol_" + std::to_string(((kRelocations - 1) * 7) % kSymbols))
            << c.name;
        // Every written symbol is there with its name and offset.
        std::map<std::string, uint64_t> offsets;
        for (BrxHandle s : Symbols(read))
            offsets[SymbolName(s)] = U64(s, BRX_KEY_SYMBOL_OFFSET);
        for (uint32_t i = 0; i < kSymbols; i += 997) {
            auto found = offsets.find("a_rather_long_symbol_" + std::to_string(i));
            ASSERT_NE(found, offsets.end()) << c.name << " " << i;
            EXPECT_EQ(found->second, uint64_t(i) * 4) << c.name << " " << i;
        }
        _brx_close_file(read);
    }
}

} // namespace
