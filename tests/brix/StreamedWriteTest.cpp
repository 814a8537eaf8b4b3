// Files are streamed to disk while they are serialised: the bytes that reach the file must be
// the ones an in-memory buffer would hold, patches included, whichever side of a flush they
// land on; a refused file leaves nothing behind; and objects far larger than the buffer read
// back whole.
#include "ByteBuffer.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <functional>
#include <map>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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

// An abandoned stream, one whose directory does not exist, and a file brix refuses (a COFF
// section alignment above 8192 bytes cannot be encoded) leave no file behind.
TEST(StreamedWrite, AbandonedUnwritableAndRefusedFilesLeaveNothing) {
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

    std::string path = dir.File("refused.obj");
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_COFF, &file), 0);
    BrxHandle section = AddSection(file, ".big", BRX_SECTION_CODE, 16384);
    AppendBytes(section, std::vector<uint8_t>(3 * kChunk, 0x90));
    EXPECT_NE(_brx_write_file(file), 0);
    EXPECT_FALSE(Exists(path));
    _brx_close_file(file);
}

// A write the system stops half-way (here a file size limit, as a full disk would) says why and
// removes the partial file; a pipe the path names is written into but never removed.
TEST(StreamedWrite, WritesStoppedHalfWayRemoveTheirFileButNoPipe) {
    TempDir dir;
    auto write = [](const std::string &path) {
        BrxHandle file = 0;
        EXPECT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF64, &file), 0);
        AppendBytes(AddSection(file, ".text", BRX_SECTION_CODE, 16),
                    std::vector<uint8_t>(5 * kChunk, 0x90));
        errno = 0;
        int32_t result = _brx_write_file(file);
        int error = errno;
        _brx_close_file(file);
        return std::make_pair(result, error);
    };

    std::string path = dir.File("limited.o");
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit limited = saved;
    limited.rlim_cur = 2 * kChunk;
    void (*oldHandler)(int) = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    std::pair<int32_t, int> limitedWrite = write(path);
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(limitedWrite, std::make_pair(int32_t(BRX_ERR_CANNOT_WRITE), EFBIG));
    EXPECT_FALSE(Exists(path));

    // The reader takes one byte and goes away: the writes after it fail.
    std::string pipe = dir.File("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::thread reader([&pipe] {
        int fd = open(pipe.c_str(), O_RDONLY);
        char byte;
        if (fd >= 0 && read(fd, &byte, 1) >= 0)
            close(fd);
    });
    oldHandler = std::signal(SIGPIPE, SIG_IGN);
    std::pair<int32_t, int> pipeWrite = write(pipe);
    std::signal(SIGPIPE, oldHandler);
    reader.join();
    EXPECT_EQ(pipeWrite, std::make_pair(int32_t(BRX_ERR_CANNOT_WRITE), EPIPE));
    EXPECT_TRUE(Exists(pipe));
}

// Processor time, not wall time, so that a loaded machine does not make a test fail.
double ProcessorSeconds() {
    return double(std::clock()) / CLOCKS_PER_SEC;
}

struct LargeCase {
    const char *name;
    int32_t format;
    uint32_t relocationType;
    uint32_t symbols; // as many relocations; 20 bytes of code per symbol, at least 5 chunks
    bool timed;       // large enough that a quadratic path would show
};

// Objects many times the buffer size: every patched pointer (section data, relocations, symbol
// table, section headers) lands in bytes that were flushed long before. Appends of a few bytes
// are amortised and writing is linear.
TEST(StreamedWrite, LargeObjectsAreQuickAndReadBackWhole) {
    const LargeCase cases[] = {{"elf64", BRX_FORMAT_ELF64, 1, 500000, true},
                               {"elf32", BRX_FORMAT_ELF32, 1, 6000, false},
                               {"coff", BRX_FORMAT_COFF, 6, 6000, false}};
    TempDir dir;
    for (const LargeCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.File(std::string("large.") + c.name);
        double start = ProcessorSeconds();
        BrxHandle file = 0;
        ASSERT_EQ(_brx_new_file(path.c_str(), c.format, &file), 0);
        BrxHandle code = AddSection(file, ".text", BRX_SECTION_CODE, 16);
        BrxHandle data = AddSection(file, ".data", 0, 8);
        std::vector<uint8_t> bytes(std::max<size_t>(size_t(c.symbols) * 20, 5 * kChunk + 13));
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = uint8_t(i * 31 + (i >> 9));
        for (size_t at = 0; at < bytes.size(); at += 10) {
            BrxBytes rec{std::min<size_t>(10, bytes.size() - at), at, &bytes[at]};
            ASSERT_EQ(_brx_set_value(code, BRX_KEY_SECTION_DATA, &rec, 0), 0);
        }
        AppendBytes(data, std::vector<uint8_t>(bytes.rbegin(), bytes.rbegin() + 4096));
        for (uint32_t i = 0; i < c.symbols; ++i) {
            std::string name = "a_rather_long_symbol_" + std::to_string(i);
            BrxHandle symbol =
                AddSymbol(file, name.c_str(), i % 3 ? BRX_BINDING_LOCAL : BRX_BINDING_GLOBAL, 0,
                          i % 2 ? code : data, i * 4);
            AddRelocation(code, c.relocationType, i % 5 ? symbol : code, uint64_t(i) * 8);
            if (::testing::Test::HasFailure())
                return;
        }
        double built = ProcessorSeconds();
        ASSERT_EQ(_brx_write_file(file), 0);
        double written = ProcessorSeconds();
        _brx_close_file(file);
        if (c.timed) {
            std::printf("%u symbols and relocations: built in %.3f s, written in %.3f s "
                        "(processor time)\n",
                        c.symbols, built - start, written - built);
#if !defined(__SANITIZE_ADDRESS__)
            EXPECT_LT(written - built, 1.0);
            EXPECT_LT(written - start, 3.0);
#endif
        }

        BrxHandle read = 0;
        ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
        BrxHandle readCode = FindSection(read, ".text");
        ASSERT_NE(readCode, 0u);
        EXPECT_TRUE(SectionBytes(readCode) == bytes);
        EXPECT_EQ(SectionBytes(FindSection(read, ".data")).size(), 4096u);
        std::vector<BrxHandle> relocations = Relocations(readCode);
        ASSERT_EQ(relocations.size(), size_t(c.symbols));
        EXPECT_EQ(U64(relocations.back(), BRX_KEY_RELOC_OFFSET), uint64_t(c.symbols - 1) * 8);
        EXPECT_EQ(SymbolName(BrxHandle(U32(relocations.back(), BRX_KEY_RELOC_TARGET))),
                  "a_rather_long_symbol_" + std::to_string(c.symbols - 1));
        // Every written symbol is there with its name and offset.
        std::map<std::string, uint64_t> offsets;
        for (BrxHandle s : Symbols(read))
            offsets[SymbolName(s)] = U64(s, BRX_KEY_SYMBOL_OFFSET);
        for (uint32_t i = 0; i < c.symbols; i += 997) {
            auto found = offsets.find("a_rather_long_symbol_" + std::to_string(i));
            ASSERT_NE(found, offsets.end()) << i;
            EXPECT_EQ(found->second, uint64_t(i) * 4) << i;
        }
        _brx_close_file(read);
    }
}

} // namespace
