#include "codeview/FileTables.h"

#include "codeview/CodeViewFormat.h"
#include "platform/ByteWriter.h"
#include "platform/Text.h"

#include <cstring>

namespace quillet {

std::u16string ComposeSourcePath(std::u16string_view directory, std::u16string_view fileName) {
    return IsAbsolutePath(fileName) ? std::u16string(fileName) : JoinPath(directory, fileName);
}

std::array<uint8_t, 24> EncodeChecksumRecord(uint32_t stringOffset, const Md5Digest &digest) {
    ByteWriter w(cv::kChecksumRecordSize);
    w.U32(stringOffset);
    w.U8(uint8_t(digest.size()));
    w.U8(cv::CHKSUM_TYPE_MD5);
    w.Bytes(digest.data(), digest.size());
    w.U16(0);
    w.Finish();
    std::array<uint8_t, 24> record;
    std::memcpy(record.data(), w.Data(), record.size());
    return record;
}

} // namespace quillet
