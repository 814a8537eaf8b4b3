// The COFF reader and writer are not written yet: every call fails honestly.
#include "Formats.h"
namespace brix {
bool WriteCoff(const CBrxFile &, std::vector<uint8_t> &) {
    return false;
}
bool LooksLikeCoff(const std::vector<uint8_t> &) {
    return false;
}
bool ReadCoff(CBrxFile &) {
    return false;
}
} // namespace brix
