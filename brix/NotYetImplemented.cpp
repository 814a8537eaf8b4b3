// The readers and the COFF writer are not written yet: every call fails honestly.
#include "Formats.h"
namespace brix {
bool WriteCoff(const CBrxFile &, std::vector<uint8_t> &) {
    return false;
}
bool LooksLikeElf(const std::vector<uint8_t> &) {
    return false;
}
bool ReadElf(CBrxFile &) {
    return false;
}
bool LooksLikeCoff(const std::vector<uint8_t> &) {
    return false;
}
bool ReadCoff(CBrxFile &) {
    return false;
}
} // namespace brix
