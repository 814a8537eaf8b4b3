// The keyed C interface: translates handles and keys into the object model, and the model's
// outcomes into the numeric results; creation of objects and the file entry points live here,
// queries in KeyedQueries and attribute meanings in Attributes.
#include "Attributes.h"
#include "Formats.h"
#include "KeyedQueries.h"
#include "Model.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace brix;

namespace {

constexpr int32_t kOk = BRX_OK;
constexpr int32_t kFailed = BRX_ERR_FAILED;

// Takes back the object that a failed creation just added (always the last of its vector).
void Withdraw(CBrxFile &f, Kind kind) {
    CBrixState &state = State();
    if (kind == Kind::Section) {
        state.Release(f.m_Sections.back().m_Handle);
        f.m_Sections.pop_back();
    } else if (kind == Kind::Relocation) {
        CRelocation &r = f.m_Relocations.back();
        state.Release(r.m_Handle);
        f.m_Sections[r.m_nSection].m_Relocations.pop_back();
        f.m_Relocations.pop_back();
    } else if (kind == Kind::Symbol) {
        state.Release(f.m_Symbols.back().m_Handle);
        f.m_Symbols.pop_back();
    }
}

int32_t Create(BrxHandle parent, uint32_t kind, uint32_t count, const BrxAttr *attrs,
               BrxHandle *out) {
    const CHandleEntry *p = State().Lookup(parent);
    if (!p || !out || (count > 0 && !attrs))
        return kFailed;
    CBrxFile &f = *p->m_pFile;

    if (kind == BRX_KIND_SYMBOL_TABLE) {
        if (p->m_Kind != Kind::File || f.m_SymbolTable == 0)
            return kFailed;
        *out = f.m_SymbolTable;
        return kOk;
    }

    Kind made;
    CHandleEntry entry;
    entry.m_pFile = &f;
    if (kind == BRX_KIND_SECTION && p->m_Kind == Kind::File) {
        made = Kind::Section;
        entry.m_nIndex = f.AddSection(std::string());
    } else if (kind == BRX_KIND_RELOCATION && p->m_Kind == Kind::Section) {
        made = Kind::Relocation;
        entry.m_nIndex = f.AddRelocation(p->m_nIndex);
    } else if (kind == BRX_KIND_SYMBOL &&
               (p->m_Kind == Kind::SymbolTable || p->m_Kind == Kind::File)) {
        made = Kind::Symbol;
        entry.m_nIndex = f.AddSymbol(std::string_view());
    } else {
        return kFailed;
    }
    entry.m_Kind = made;
    BrxHandle handle = made == Kind::Section      ? f.m_Sections.back().m_Handle
                       : made == Kind::Relocation ? f.m_Relocations.back().m_Handle
                                                  : f.m_Symbols.back().m_Handle;
    bool ok = handle != 0;
    for (uint32_t i = 0; ok && i < count; ++i)
        ok = SetAttribute(entry, attrs[i].key, attrs[i].value);
    // A relocation is useless without its target; refuse it now rather than at writing time.
    if (ok && made == Kind::Relocation && f.m_Relocations.back().m_Target == 0)
        ok = false;
    if (!ok) {
        Withdraw(f, made);
        return kFailed;
    }
    *out = handle;
    return kOk;
}

// Maps a regular file whole; directories and other special files are refused (their reported
// sizes mean nothing). When the system refuses, `error` keeps its errno for the caller.
int32_t ReadWholeFile(const char *path, CFileImage &out, int &error) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return BRX_ERR_CANNOT_READ;
    }
    struct stat info;
    int32_t result = BRX_OK;
    if (fstat(fd, &info) != 0) {
        error = errno;
        result = BRX_ERR_CANNOT_READ;
    } else if (S_ISDIR(info.st_mode)) {
        result = BRX_ERR_IS_DIRECTORY;
    } else if (!S_ISREG(info.st_mode) || info.st_size < 0) {
        result = BRX_ERR_NOT_AN_OBJECT;
    } else if (!out.Load(fd, size_t(info.st_size))) {
        error = errno;
        result = BRX_ERR_CANNOT_READ;
    }
    close(fd);
    return result;
}

int32_t OpenFile(const char *path, uint32_t *mode, BrxHandle *out_file, int &error) {
    if (!path || !out_file)
        return kFailed;
    auto owned = std::make_unique<CBrxFile>(0, path, false);
    if (int32_t result = ReadWholeFile(path, owned->m_Image, error))
        return result;
    CBrxFile *f = State().Adopt(std::move(owned));
    int32_t result = f->m_Handle == 0                  ? kFailed
                     : LooksLikeElf(f->m_Image)        ? ReadElf(*f)
                     : LooksLikeCoff(f->m_Image)       ? ReadCoff(*f)
                     : IsUnreadCoffVariant(f->m_Image) ? BRX_ERR_UNSUPPORTED
                                                       : BRX_ERR_NOT_AN_OBJECT;
    if (result == BRX_OK && f->m_bOutOfHandles)
        result = kFailed;
    if (result != BRX_OK) {
        State().Close(f);
        return result;
    }
    if (mode)
        *mode = f->m_nObjectKind;
    *out_file = f->m_Handle;
    return kOk;
}

// Every entry point catches what the standard library may throw (an allocation that fails on a
// size taken from a file or a caller), so that the C boundary only ever sees a result.
template <class Body> int32_t Guarded(Body body) {
    try {
        return body();
    } catch (...) {
        return kFailed;
    }
}

} // namespace

extern "C" {

BRIX_API int32_t _brx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                uint32_t) {
    return Guarded([&] { return GetKeyed(object, key, input, output, false); });
}

BRIX_API int32_t _wcbrx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                  uint32_t) {
    return Guarded([&] { return GetKeyed(object, key, input, output, true); });
}

BRIX_API int32_t _brx_set_value(BrxHandle object, uint32_t key, const void *value, uint32_t) {
    return Guarded([&] {
        const CHandleEntry *e = State().Lookup(object);
        if (!e)
            return kFailed;
        return SetAttribute(*e, key, value) ? kOk : kFailed;
    });
}

BRIX_API int32_t _brx_create_object(BrxHandle parent, int32_t, uint32_t kind, uint32_t count,
                                    const BrxAttr *attrs, BrxHandle *out, uint32_t) {
    return Guarded([&] { return Create(parent, kind, count, attrs, out); });
}

BRIX_API int32_t _brx_open_file(const char *path, uint32_t *mode, BrxHandle *out_file, uint32_t) {
    int error = 0;
    int32_t result = Guarded([&] { return OpenFile(path, mode, out_file, error); });
    // Set last, so that nothing released on the way out changes it.
    if (result == BRX_ERR_CANNOT_READ)
        errno = error;
    return result;
}

BRIX_API int32_t _brx_new_file(const char *path, int32_t format, BrxHandle *out_file) {
    return Guarded([&] {
        if (!path || !out_file || format < BRX_FORMAT_ELF32 || format > BRX_FORMAT_COFF)
            return kFailed;
        CBrxFile *f = State().Adopt(std::make_unique<CBrxFile>(format, path, true));
        f->AddSymbolTable();
        if (f->m_bOutOfHandles || f->m_Handle == 0) {
            State().Close(f);
            return kFailed;
        }
        *out_file = f->m_Handle;
        return kOk;
    });
}

BRIX_API int32_t _brx_write_file(BrxHandle file) {
    int error = 0;
    int32_t result = Guarded([&] {
        const CHandleEntry *e = LookupKind(file, Kind::File);
        if (!e || !e->m_pFile->m_bWritable)
            return kFailed;
        const CBrxFile &f = *e->m_pFile;
        // The file is streamed to disk as it is serialised; a refused one is not left behind.
        CByteBuffer out(f.m_Path);
        bool ok = f.m_nFormat == BRX_FORMAT_COFF ? WriteCoff(f, out) : WriteElf(f, out);
        if (!ok) {
            // A write that the system refused on the way says so; else the model was refused.
            error = out.Error();
            out.Abandon();
            return error != 0 ? BRX_ERR_CANNOT_WRITE : kFailed;
        }
        if (out.Finish())
            return kOk;
        error = out.Error();
        out.Abandon();
        return BRX_ERR_CANNOT_WRITE;
    });
    if (result == BRX_ERR_CANNOT_WRITE)
        errno = error;
    return result;
}

BRIX_API int32_t _brx_close_file(BrxHandle file) {
    return Guarded([&] {
        const CHandleEntry *e = LookupKind(file, Kind::File);
        if (!e)
            return kFailed;
        State().Close(e->m_pFile);
        return kOk;
    });
}

} // extern "C"
