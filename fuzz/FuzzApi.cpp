// libFuzzer target over the production API: the input is a program of calls, as an assembler
// (or a confused one) might make them. Each step takes one byte for the call and more bytes for
// its arguments: scopes, objects with property lists that fail part-way, retyping, types, sources
// and line entries, emission into ELF32, ELF64 or COFF, and restarts of the library that leave
// every earlier handle stale. Handles are taken from what the library handed out, from earlier
// runs, or made up. Whatever the program, every call must give a status: no crash, no leak, no
// undefined behaviour.
#include <brix/brix.h>
#include <quillet/quillet.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The input, read a byte or a value at a time; zeros once it is used up.
class Input {
public:
    Input(const uint8_t *data, size_t size) : m_pData(data), m_nSize(size) {}
    bool Done() const { return m_nPos >= m_nSize; }
    uint8_t Byte() { return m_nPos < m_nSize ? m_pData[m_nPos++] : 0; }
    uint32_t U32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value |= uint32_t(Byte()) << (8 * i);
        return value;
    }
    uint64_t U64() { return U32() | (uint64_t(U32()) << 32); }
    // One of `count` choices.
    size_t Pick(size_t count) { return count ? Byte() % count : 0; }

private:
    const uint8_t *m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
};

// Source names and module strings, empty and odd ones included.
const char16_t *const kNames[] = {u"a.asm",       u"c:\\src\\b.asm", u"",   u"\\root.s",
                                  u"c:\\inc\\",   u"/abs/c.s",       u"\\", u"d\u00e9j\u00e0.s",
                                  u"sub\\x\\y.s", u"C:\\SRC\\e.s"};
const char *const kObjectNames[] = {"n", "", ".dot", "a_much_longer_name_for_a_constant"};

// Everything the program has been handed or has made up, kept across restarts (so that what a
// finished run handed out comes back stale).
struct Handles {
    std::vector<DbgScope> scopes;
    std::vector<DbgObject> objects;
    std::vector<DbgType> types;
    std::vector<DbgSource> sources;
    std::vector<BrxHandle> sections;
    std::vector<BrxHandle> symbols;
    // Memory that is no handle at all, handed over as one.
    uint64_t junk[8] = {};

    template <class T> T From(std::vector<T> &list, Input &in) {
        size_t choice = in.Pick(list.size() + 2);
        if (choice < list.size())
            return list[choice];
        if (choice == list.size())
            return T{};
        return reinterpret_cast<T>(&junk[in.Pick(8)]);
    }
    BrxHandle Brx(std::vector<BrxHandle> &list, Input &in) {
        size_t choice = in.Pick(list.size() + 1);
        return choice < list.size() ? list[choice] : BrxHandle(in.Byte());
    }
};

// One object file and one run of the library over it.
class Program {
public:
    Program(Input &in, Handles &handles) : m_In(in), m_H(handles) {}
    ~Program() { Finish(); }

    void Start() {
        Finish();
        m_bStarted = true;
        Dbg_init(0);
        int32_t formats[] = {BRX_FORMAT_ELF32, BRX_FORMAT_ELF64, BRX_FORMAT_COFF};
        m_nFormat = formats[m_In.Pick(3)];
        // The file stays in memory: it is never written.
        if (_brx_new_file("fuzz-api.o", m_nFormat, &m_File) != BRX_OK) {
            m_File = 0;
            return;
        }
        BrxFind find{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
        if (_brx_get_keyed(m_File, BRX_KEY_FIND, &find, &m_SymbolTable, 0) != BRX_OK)
            m_SymbolTable = 0;
        BrxHandle text = AddSection(".text", true, 0x40 + m_In.Byte());
        AddSection(".data", false, m_In.Byte());
        BrxHandle hot = AddSection(".text.hot", true, 0x20);
        if (m_nFormat == BRX_FORMAT_COFF && m_In.Byte() & 1) {
            BrxComdat comdat{BRX_COMDAT_ANY, 0};
            (void)_brx_set_value(hot, BRX_KEY_COMDAT, &comdat, 0);
        }
        for (int i = 0; i < 4; ++i)
            AddSymbol(text, 0x10 * i);
        AddSymbol(hot, 0);
    }

    void Finish() {
        if (!m_bStarted)
            return;
        Dbg_finish();
        if (m_File)
            _brx_close_file(m_File);
        m_File = 0;
        m_bStarted = false;
    }

    void Step() {
        if (!m_bStarted)
            Start();
        switch (m_In.Pick(14)) {
        case 0:
            OpenModule();
            break;
        case 1: {
            DbgScope scope = nullptr;
            if (Dbg_open_section_scope(m_H.Brx(m_H.sections, m_In), &scope) == DBG_ERR_NONE)
                m_H.scopes.push_back(scope);
            break;
        }
        case 2: {
            DbgObject procedure = CreateObject(DBG_OBJ_PROCEDURE);
            DbgScope scope = nullptr;
            if (Dbg_open_procedure_scope(m_In.Byte() & 1 ? procedure : m_H.From(m_H.objects, m_In),
                                         &scope) == DBG_ERR_NONE)
                m_H.scopes.push_back(scope);
            break;
        }
        case 3:
            (void)Dbg_close_current_scope();
            break;
        case 4:
            (void)Dbg_set_current_scope(m_H.From(m_H.scopes, m_In));
            break;
        case 5:
        case 6:
            (void)CreateObject(int32_t(m_In.Pick(7)));
            break;
        case 7: {
            std::vector<DbgObjectProp> props = Properties();
            (void)Dbg_add_object_prop(m_H.From(m_H.objects, m_In), props.data(),
                                      uint32_t(props.size()) | (m_In.Byte() & 1 ? 0x10000 : 0));
            break;
        }
        case 8: {
            DbgType type = nullptr;
            if (Dbg_base_type(int32_t(m_In.Pick(15)) - 1, &type) == DBG_ERR_NONE)
                m_H.types.push_back(type);
            if (Dbg_procedure_type(m_H.From(m_H.types, m_In), m_In.Pick(4), &type) == DBG_ERR_NONE)
                m_H.types.push_back(type);
            break;
        }
        case 9: {
            DbgSource source = nullptr;
            if (DbgLine_create_source(kNames[m_In.Pick(std::size(kNames))], &source) ==
                DBG_ERR_NONE)
                m_H.sources.push_back(source);
            break;
        }
        case 10:
        case 11: {
            // Mostly plausible entries, sometimes past their section's end or far away.
            DbgLineDesc desc{m_H.From(m_H.sources, m_In),
                             m_In.Byte() % 8u + 1,
                             m_In.Byte(),
                             m_In.Byte() & 0x80 ? m_In.U32() : 0,
                             0,
                             m_In.Byte()};
            (void)Dbg_create_line(m_In.Byte() & 1 ? nullptr : m_H.From(m_H.scopes, m_In), &desc);
            break;
        }
        case 12:
            (void)Dbg_emit();
            break;
        default:
            // A new run: everything handed out so far is stale.
            Start();
            break;
        }
    }

private:
    BrxHandle AddSection(const char *name, bool code, uint64_t size) {
        uint16_t flags = code ? BRX_SECTION_CODE : 0;
        uint32_t alignment = 16, kind = 0;
        BrxAttr attrs[] = {{BRX_KEY_NAME, name},
                           {BRX_KEY_SECTION_FLAGS, &flags},
                           {BRX_KEY_SECTION_ALIGNMENT, &alignment},
                           {BRX_KEY_SECTION_KIND, &kind}};
        BrxHandle section = 0;
        if (_brx_create_object(m_File, m_nFormat, BRX_KIND_SECTION, 4, attrs, &section, 0) !=
            BRX_OK)
            return 0;
        std::vector<uint8_t> bytes(size, 0x90);
        BrxBytes data{size, 0, bytes.data()};
        if (size > 0)
            (void)_brx_set_value(section, BRX_KEY_SECTION_DATA, &data, 0);
        m_H.sections.push_back(section);
        return section;
    }

    void AddSymbol(BrxHandle section, uint64_t offset) {
        std::string name = "s" + std::to_string(m_H.symbols.size());
        uint32_t storage = 0, binding = m_In.Byte() & 1 ? BRX_BINDING_GLOBAL : BRX_BINDING_LOCAL;
        uint32_t type = BRX_SYMBOL_FUNCTION;
        BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name.c_str()}, {BRX_KEY_SYMBOL_STORAGE, &storage},
                           {BRX_KEY_SYMBOL_BINDING, &binding},  {BRX_KEY_SYMBOL_TYPE, &type},
                           {BRX_KEY_SYMBOL_SECTION, &section},  {BRX_KEY_SYMBOL_OFFSET, &offset}};
        BrxHandle symbol = 0;
        if (_brx_create_object(m_SymbolTable, m_nFormat, BRX_KIND_SYMBOL, 6, attrs, &symbol, 0) ==
            BRX_OK)
            m_H.symbols.push_back(symbol);
    }

    void OpenModule() {
        const uint16_t versions[3] = {1, 2, 3};
        DbgScope scope = nullptr;
        BrxHandle file = m_In.Byte() & 7 ? m_File : BrxHandle(m_In.Byte());
        if (Dbg_open_module_scope(
                file, 1, m_In.Byte() & 1, m_In.Byte() & 1, 1, versions, versions,
                kNames[m_In.Pick(std::size(kNames))], kNames[m_In.Pick(std::size(kNames))],
                kNames[m_In.Pick(std::size(kNames))], u"qasm", &scope) == DBG_ERR_NONE)
            m_H.scopes.push_back(scope);
    }

    // A property list of a few records, ids 0 to 15. A value has the shape its id asks for (what
    // a caller must get right) but any content: made-up, stale or null handles, out-of-range
    // numbers, codes and registers, null entry arrays; sometimes the value pointer is null. The
    // storage lives in the program, so values stay valid during the call.
    std::vector<DbgObjectProp> Properties() {
        std::vector<DbgObjectProp> props;
        size_t count = m_In.Pick(kMaxProps + 1);
        for (size_t i = 0; i < count; ++i) {
            Value &v = m_Values[i];
            uint32_t id = uint32_t(m_In.Pick(16));
            const void *value = nullptr;
            switch (id) {
            case DBG_PROP_SYMBOL:
                v.handle = m_H.Brx(m_H.symbols, m_In);
                value = &v.handle;
                break;
            case DBG_PROP_TYPE:
            case DBG_PROP_PROC_TYPE:
                v.type = m_H.From(m_H.types, m_In);
                value = &v.type;
                break;
            case DBG_PROP_BASE_TYPE:
                v.code = int32_t(m_In.Pick(15)) - 1;
                value = &v.code;
                break;
            case DBG_PROP_VALUE:
                for (uint8_t &byte : v.bytes)
                    byte = m_In.Byte();
                value = v.bytes;
                break;
            case DBG_PROP_NAME:
                std::strcpy(v.text, kObjectNames[m_In.Pick(std::size(kObjectNames))]);
                value = v.text;
                break;
            case DBG_PROP_ENTRY_LIST:
                for (BrxHandle &entry : v.entries)
                    entry = m_H.Brx(m_H.symbols, m_In);
                v.list = DbgEntryList{m_In.Byte() & 7 ? v.entries : nullptr,
                                      uint32_t(m_In.Pick(std::size(v.entries) + 1))};
                value = &v.list;
                break;
            case DBG_PROP_START:
            case DBG_PROP_END:
                v.wide = m_In.Byte() & 1 ? m_In.Byte() : m_In.U64();
                value = &v.wide;
                break;
            case DBG_PROP_PROC_FLAGS:
                v.flags = uint16_t(m_In.U32());
                value = &v.flags;
                break;
            default: // registers (to 1020), debug offsets, and ids no kind accepts
                v.number = uint32_t(m_In.Byte()) * (m_In.Byte() & 1 ? 4 : 1);
                value = &v.number;
                break;
            }
            if (m_In.Byte() == 0xff)
                value = nullptr;
            props.push_back({id, value});
        }
        return props;
    }

    DbgObject CreateObject(int32_t kind) {
        std::vector<DbgObjectProp> props = Properties();
        DbgObject object = nullptr;
        DbgScope scope = m_In.Byte() & 3 ? nullptr : m_H.From(m_H.scopes, m_In);
        if (Dbg_create_object(kind, props.data(), uint32_t(props.size()), scope, &object) ==
            DBG_ERR_NONE)
            m_H.objects.push_back(object);
        return object;
    }

    static constexpr size_t kMaxProps = 4;
    struct Value {
        BrxHandle handle;
        DbgType type;
        int32_t code;
        uint8_t bytes[16]; // as wide as the widest basic type (10 bytes) and more
        char text[48];
        BrxHandle entries[4];
        DbgEntryList list;
        uint64_t wide;
        uint16_t flags;
        uint32_t number;
    };

    Input &m_In;
    Handles &m_H;
    Value m_Values[kMaxProps] = {};
    int32_t m_nFormat = BRX_FORMAT_ELF64;
    BrxHandle m_File = 0;
    BrxHandle m_SymbolTable = 0;
    bool m_bStarted = false;
};

// Most failed checks report a caller's mistake, which the program makes on purpose. A record
// whose bytes disagree with its computed length is the library's own fault, whatever the caller
// did (an entry written over a released object's field shows this way), so it ends the run.
void OnCheck(const char *expression, const char *file, unsigned line) {
    if (std::strcmp(file, "ByteWriter.h") == 0) {
        std::fprintf(stderr, "record length check failed: %s (%s, line %u)\n", expression, file,
                     line);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Dbg_set_check_handler(OnCheck);
    Input in(data, size);
    Handles handles;
    {
        Program program(in, handles);
        for (int steps = 0; !in.Done() && steps < 256; ++steps)
            program.Step();
    }
    return 0;
}
