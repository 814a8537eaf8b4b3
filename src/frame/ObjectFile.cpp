#include "frame/ObjectFile.h"

#include "frame/LibraryState.h"
#include "frame/Target.h"
#include "platform/Check.h"

#include <vector>

namespace objfile {

namespace {
CError Result(int32_t status) {
    return status == BRX_OK ? kOk : kFailed;
}
} // namespace

CError Bind(BrxHandle file, CObjectFile &binding, bool &unsupported) {
    BrxFind find{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BrxHandle table = 0;
    CError found = Result(_brx_get_keyed(file, BRX_KEY_FIND, &find, &table, 0));
    QCHECK(found == CError::BOOL_STATUS_OK);
    int32_t format = 0;
    CError queried = QueryFormat(file, format);
    QCHECK(queried == CError::BOOL_STATUS_OK);
    unsupported = false;
    const CTarget *target = &DefaultTarget();
    uint32_t machine = 0;
    // Writing another machine's relocation numbers would corrupt every program linked from the
    // file, so a machine without a target is refused rather than written as the default.
    if (queried.Ok() && QueryMachine(file, machine).Ok()) {
        const CTarget *supportedTarget = FindTarget(format, machine);
        if (!QCHECK(supportedTarget != nullptr)) {
            unsupported = true;
            return kFailed;
        }
        target = supportedTarget;
    }
    binding.file = file;
    binding.symbolTable = found.Ok() ? table : 0;
    binding.format = queried.Ok() ? format : 0;
    binding.target = target;
    return found.Ok() && queried.Ok() ? kOk : kFailed;
}

CError QueryMachine(BrxHandle file, uint32_t &machine) {
    return Result(_brx_get_keyed(file, BRX_KEY_MACHINE, nullptr, &machine, 0));
}

CError QueryFormat(BrxHandle file, int32_t &format) {
    uint32_t value = 0;
    if (_brx_get_keyed(file, BRX_KEY_FORMAT, nullptr, &value, 0) != BRX_OK)
        return kFailed;
    format = int32_t(value);
    return kOk;
}

// Names are fetched into a 256-byte buffer that is doubled while the library finds it small.
CError SymbolName(BrxHandle symbol, std::string &name) {
    char small[256];
    uint32_t capacity = sizeof(small);
    int32_t status = _brx_get_keyed(symbol, BRX_KEY_SYMBOL_NAME, &capacity, small, 0);
    if (status == BRX_OK) {
        name.assign(small);
        return kOk;
    }
    std::vector<char> buffer;
    while (status == BRX_ERR_BUFFER_TOO_SMALL && capacity < (1u << 30)) {
        capacity *= 2;
        buffer.resize(capacity);
        status = _brx_get_keyed(symbol, BRX_KEY_SYMBOL_NAME, &capacity, buffer.data(), 0);
    }
    if (status != BRX_OK)
        return kFailed;
    name.assign(buffer.data());
    return kOk;
}

// Sections answer the name query as symbols do.
CError SectionName(BrxHandle section, std::string &name) {
    return SymbolName(section, name);
}

CError SymbolBinding(BrxHandle symbol, uint32_t &binding) {
    return Result(_brx_get_keyed(symbol, BRX_KEY_SYMBOL_BINDING, nullptr, &binding, 0));
}

CError SymbolOffset(BrxHandle symbol, uint64_t &offset) {
    return Result(_brx_get_keyed(symbol, BRX_KEY_SYMBOL_OFFSET, nullptr, &offset, 0));
}

CError SymbolSection(BrxHandle symbol, BrxHandle &section) {
    return Result(_brx_get_keyed(symbol, BRX_KEY_SYMBOL_SECTION, nullptr, &section, 0));
}

CError SectionSize(BrxHandle section, uint64_t &size) {
    return Result(_brx_get_keyed(section, BRX_KEY_SECTION_SIZE, nullptr, &size, 0));
}

CError SectionFlags(BrxHandle section, uint16_t &flags) {
    return Result(_brx_get_keyed(section, BRX_KEY_SECTION_FLAGS, nullptr, &flags, 0));
}

CError SectionComdat(BrxHandle section, BrxComdat &comdat) {
    return Result(_brx_get_keyed(section, BRX_KEY_COMDAT, nullptr, &comdat, 0));
}

CError FindSection(BrxHandle file, const std::string &name, BrxHandle &section) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name.c_str()};
    return Result(_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0));
}

CError CreateSection(BrxHandle file, int32_t format, const std::string &name, uint16_t flags,
                     uint32_t alignment, uint32_t kindAttribute, BrxHandle &section) {
    BrxAttr attrs[] = {{BRX_KEY_NAME, name.c_str()},
                       {BRX_KEY_SECTION_FLAGS, &flags},
                       {BRX_KEY_SECTION_ALIGNMENT, &alignment},
                       {BRX_KEY_SECTION_KIND, &kindAttribute}};
    BrxHandle created = 0;
    if (_brx_create_object(file, format, BRX_KIND_SECTION, 4, attrs, &created, 0) != BRX_OK ||
        created == 0)
        return kFailed;
    section = created;
    return kOk;
}

CError CreateSymbol(const std::string &name, uint32_t type, BrxHandle section, uint64_t offset,
                    BrxHandle &symbol) {
    const CObjectFile &binding = State().binding;
    uint32_t storage = 0;
    uint32_t bindingLocal = BRX_BINDING_LOCAL;
    BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name.c_str()},     {BRX_KEY_SYMBOL_STORAGE, &storage},
                       {BRX_KEY_SYMBOL_BINDING, &bindingLocal}, {BRX_KEY_SYMBOL_TYPE, &type},
                       {BRX_KEY_SYMBOL_SECTION, &section},      {BRX_KEY_SYMBOL_OFFSET, &offset}};
    BrxHandle created = 0;
    if (_brx_create_object(binding.symbolTable, binding.format, BRX_KIND_SYMBOL, 6, attrs, &created,
                           0) != BRX_OK ||
        created == 0)
        return kFailed;
    symbol = created;
    return kOk;
}

CError CreateRelocation(BrxHandle section, int32_t format, uint32_t type, uint64_t offset,
                        BrxHandle target, int64_t addend) {
    BrxAttr attrs[] = {{BRX_KEY_RELOC_TYPE, &type},
                       {BRX_KEY_RELOC_OFFSET, &offset},
                       {BRX_KEY_RELOC_TARGET, &target},
                       {BRX_KEY_RELOC_ADDEND, &addend}};
    // The addend is an attribute only when there is one.
    uint32_t count = addend != 0 ? 4 : 3;
    BrxHandle created = 0;
    return Result(
        _brx_create_object(section, format, BRX_KIND_RELOCATION, count, attrs, &created, 0));
}

CError WriteBytes(BrxHandle section, uint64_t offset, const void *data, uint64_t count,
                  uint64_t &written) {
    BrxBytes bytes{count, offset, const_cast<void *>(data)};
    if (_brx_set_value(section, BRX_KEY_SECTION_DATA, &bytes, 0) != BRX_OK)
        return kFailed;
    written = bytes.count;
    return kOk;
}

CError ReadBytes(BrxHandle section, uint64_t offset, void *data, uint64_t count, uint64_t &read) {
    BrxBytes bytes{count, offset, data};
    if (_brx_get_keyed(section, BRX_KEY_SECTION_DATA, nullptr, &bytes, 0) != BRX_OK)
        return kFailed;
    read = bytes.count;
    return kOk;
}

CError FilePath(BrxHandle file, std::u16string &path) {
    // The capacity is in bytes; a path longer than the buffer is asked for again with room.
    std::vector<char16_t> buffer(257);
    for (;;) {
        uint32_t capacity = uint32_t(buffer.size() * sizeof(char16_t));
        const int32_t status = _wcbrx_get_keyed(file, BRX_KEY_PATH, &capacity, buffer.data(), 0);
        if (status == BRX_OK)
            break;
        if (status != BRX_ERR_BUFFER_TOO_SMALL || buffer.size() >= (1u << 28))
            return kFailed;
        buffer.resize(buffer.size() * 2);
    }
    path.assign(buffer.data());
    return kOk;
}

} // namespace objfile
