// The entry points of the per-format writers and readers behind the object model.
#pragma once

#include "ByteBuffer.h"
#include "Model.h"

#include <cstdint>
#include <vector>

namespace brix {

// Serialise a file made through the keyed interface into `out` (which streams it to the file);
// false when the model cannot be written (a relocation whose target is gone, a size beyond what
// the format can hold). The caller then abandons `out`.
bool WriteElf(const CBrxFile &file, CByteBuffer &out);
bool WriteCoff(const CBrxFile &file, CByteBuffer &out);

// Fill a file whose m_Image holds the bytes of an object file; BRX_OK, or the BRX_ERR_* result
// that says why the bytes are not a well-formed object of that format. The file is left
// half-built on failure; the caller closes it.
bool LooksLikeElf(const CFileImage &image);
int32_t ReadElf(CBrxFile &file);
bool LooksLikeCoff(const CFileImage &image);
// A COFF file of a kind that is not read (big-object COFF, import library).
bool IsUnreadCoffVariant(const CFileImage &image);
int32_t ReadCoff(CBrxFile &file);

} // namespace brix
