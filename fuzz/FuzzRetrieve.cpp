// libFuzzer target over brix's object readers and the retrieval engine. The first byte of an
// input chooses what the rest is:
//   even: a whole object file, opened through the exported retrieval functions, then queried;
//   odd:  the bytes of a .debug_line section, decoded with a fixed compilation unit in memory.
// Either way the input must give a status, never a crash, a leak or undefined behaviour.
#include "lines/Retrieve.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Sequences of a raw line section all go to one section, unmoved.
struct OneSectionPlacer : quillet::CSequencePlacer {
    Result Place(const quillet::CAddressOperand &, BrxHandle &section, int64_t &bias) override {
        section = 1;
        bias = 0;
        return Result::Placed;
    }
};

// A compilation unit naming the line program at offset 0.
const uint8_t kAbbrev[] = {1, 0x11, 1, 0x03, 0x08, 0x1b, 0x08, 0x25, 0x08, 0x10, 0x06, 0, 0, 0};
const uint8_t kInfo[] = {25, 0,   0,   0, 2,   0,   0,   0,   0, 0, 8, 1, 'a', '.', 's',
                         0,  '/', 'w', 0, 'f', 'u', 'z', 'z', 0, 0, 0, 0, 0,   0};

void QueryEverything(CBaseRetrieve &engine, const uint8_t *data, size_t size) {
    uint32_t count = 0;
    (void)engine.SourceFileCount(&count);
    for (uint32_t i = 0; i < count && i < 8; ++i) {
        char name[64];
        uint32_t capacity = sizeof(name);
        (void)engine.SourceFileName(static_cast<int32_t>(i), name, &capacity);
    }
    // Offsets and positions taken from the input itself.
    for (const quillet::CSectionRows &rows :
         std::vector<quillet::CSectionRows>(engine.Sections().begin(), engine.Sections().end())) {
        DbgLineSectionHandle *handle = engine.SectionHandle(rows.m_Section);
        for (size_t i = 0; i + 2 <= size && i < 64; i += 2) {
            DbgOffsetQuery query{handle, static_cast<uint64_t>(data[i] | (data[i + 1] << 8))};
            DbgInstInfo info;
            (void)engine.InstInfoByOffset(data[i] & 1, &query, &info);
        }
        if (rows.m_nBegin < rows.m_nEnd) {
            DbgOffsetQuery query{handle, engine.Rows()[rows.m_nBegin].m_nAddress};
            DbgInstInfo info;
            (void)engine.InstInfoByOffset(1, &query, &info);
        }
        // Every row with its range, and each found again from both ends of its range.
        uint64_t total = 0;
        (void)engine.RowCount(handle, &total);
        std::vector<DbgLineRow> all(static_cast<size_t>(std::min<uint64_t>(total, 4096)));
        uint64_t copied = all.size();
        (void)engine.GetRows(handle, 0, all.data(), &copied);
        for (uint64_t i = 0; i < copied; ++i) {
            DbgLineRow found;
            uint64_t index = 0;
            if (engine.FindRow(handle, all[i].offset, &found, &index) == DBG_ERR_NONE &&
                all[i].end > all[i].offset)
                (void)engine.FindRow(handle, all[i].end - 1, &found, nullptr);
        }
        for (size_t i = 0; i + 2 <= size && i < 64; i += 2) {
            DbgLineRow found;
            (void)engine.FindRow(handle, static_cast<uint64_t>(data[i] | (data[i + 1] << 8)),
                                 &found, nullptr);
        }
    }
    for (uint32_t file = 0; file < count && file < 4; ++file) {
        DbgSourceHandle *source = nullptr;
        if (engine.FindSource(engine.Files().Path(file).c_str(), &source) != 0)
            continue;
        for (size_t i = 0; i + 1 < size && i < 32; ++i) {
            DbgSourceQuery query{source, data[i], static_cast<uint16_t>(data[i + 1] & 3)};
            DbgSourceResult result;
            (void)engine.InstInfoBySource(data[i] & 1, &query, &result);
        }
    }
}

void FuzzLineSection(const uint8_t *data, size_t size) {
    CBaseRetrieve engine;
    quillet::CDwarfSections sections;
    sections.info = quillet::CDwarfSection{kInfo, sizeof(kInfo), nullptr};
    sections.abbrev = quillet::CDwarfSection{kAbbrev, sizeof(kAbbrev), nullptr};
    // A copy of exactly the input's length, so reads past it are caught.
    std::vector<uint8_t> line(data, data + size);
    sections.line = quillet::CDwarfSection{line.data(), line.size(), nullptr};
    OneSectionPlacer placer;
    (void)engine.LoadDwarf(sections, placer);
    QueryEverything(engine, data, size);
}

void FuzzObjectFile(const uint8_t *data, size_t size) {
    // The object file lives in memory only; brix opens it by a path.
    int fd = memfd_create("fuzz-object", 0);
    if (fd < 0)
        return;
    size_t written = 0;
    while (written < size) {
        ssize_t n = write(fd, data + written, size - written);
        if (n <= 0)
            break;
        written += static_cast<size_t>(n);
    }
    std::string path = "/proc/self/fd/" + std::to_string(fd);

    Dbg_init(1);
    char source[] = "a.s";
    DbgSourceHandle *handle = nullptr;
    (void)DbgLine_open_object_and_source_file(path.c_str(), source, &handle);
    uint32_t count = 0;
    (void)DbgLine_get_source_files_number(&count);
    for (uint32_t i = 0; i < count && i < 8; ++i) {
        char name[512];
        uint32_t capacity = sizeof(name);
        (void)DbgLine_get_source_file_name(static_cast<int32_t>(i), name, &capacity);
    }
    Dbg_finish();

    // The same bytes once more, through a reader that queries every section it found.
    uint32_t mode = 7;
    BrxHandle file = 0;
    if (_brx_open_file(path.c_str(), &mode, &file, 0) == BRX_OK) {
        BrxHandle section = BRX_FIRST;
        Dbg_init(1);
        for (int n = 0; n < 16; ++n) {
            BrxFind find{section, BRX_KIND_SECTION, BRX_ANY, nullptr};
            if (_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0) != BRX_OK)
                break;
            DbgLineSectionHandle *lines = nullptr;
            if (DbgLine_open_line_section(section, &lines) != DBG_ERR_NONE)
                continue;
            for (size_t i = 0; i + 1 < size && i < 16; ++i) {
                DbgOffsetQuery query{lines, data[i]};
                DbgInstInfo info;
                (void)DbgLine_get_inst_info_by_offset(data[i + 1] & 1, &query, &info);
                DbgLineRow row;
                (void)DbgLine_find_row(lines, data[i], &row, nullptr);
                char function[32];
                uint32_t capacity = sizeof(function);
                uint64_t start = 0, end = 0;
                (void)DbgLine_find_function(lines, data[i], function, &capacity, &start, &end);
            }
            DbgLineRow rows[8];
            uint64_t count = 8;
            (void)DbgLine_get_rows(lines, size > 1 ? data[1] : 0, rows, &count);
        }
        Dbg_finish();
        _brx_close_file(file);
    }
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    if (data[0] & 1)
        FuzzLineSection(data + 1, size - 1);
    else
        FuzzObjectFile(data + 1, size - 1);
    return 0;
}
