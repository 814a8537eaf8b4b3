#include "platform/SourceFileReader.h"

#include "platform/Text.h"

#include <cstdio>
#include <memory>

namespace quillet {

bool ReadWholeFile(std::u16string_view name, std::vector<uint8_t> &bytes) {
    bytes.clear();
    const std::string path = ToUtf8(name);
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "rb"),
                                                          &std::fclose);
    if (!file)
        return false;
    uint8_t chunk[65536];
    for (;;) {
        const size_t got = std::fread(chunk, 1, sizeof chunk, file.get());
        bytes.insert(bytes.end(), chunk, chunk + got);
        if (got < sizeof chunk)
            return !std::ferror(file.get());
    }
}

} // namespace quillet
