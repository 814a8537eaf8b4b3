#include "support/ModuleBuilder.h"

namespace qtest {

// ---- Check reports -----------------------------------------------------------------------------

namespace {
std::vector<std::string> &Reports() {
    static std::vector<std::string> reports;
    return reports;
}
void CountCheck(const char *expression, const char *, unsigned) {
    Reports().push_back(expression);
}
} // namespace

CheckCounter::CheckCounter() {
    Reports().clear();
    Dbg_set_check_handler(CountCheck);
}
CheckCounter::~CheckCounter() {
    Dbg_set_check_handler(nullptr);
}
int CheckCounter::Count() const {
    return int(Reports().size());
}
const std::vector<std::string> &CheckCounter::Expressions() const {
    return Reports();
}

// ---- Module builder ----------------------------------------------------------------------------

ModuleBuilder::ModuleBuilder(const std::string &path, int32_t format, bool initLibrary)
    : m_Path(path), m_Format(format), m_bInit(initLibrary) {
    if (m_bInit)
        Dbg_init(0);
    if (_brx_new_file(path.c_str(), format, &m_File) != BRX_OK)
        m_File = 0;
    BrxFind find{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    if (m_File && _brx_get_keyed(m_File, BRX_KEY_FIND, &find, &m_SymbolTable, 0) != BRX_OK)
        m_SymbolTable = 0;
}

bool ModuleBuilder::SetMachine(uint32_t machine) {
    return _brx_set_value(m_File, BRX_KEY_MACHINE, &machine, 0) == BRX_OK;
}

ModuleBuilder::~ModuleBuilder() {
    if (m_bInit)
        Dbg_finish();
    if (m_File)
        _brx_close_file(m_File);
}

BrxHandle ModuleBuilder::AddSection(const std::string &name, bool code, uint64_t size) {
    uint16_t flags = code ? BRX_SECTION_CODE : 0;
    uint32_t alignment = 16, kind = 0;
    BrxAttr attrs[] = {{BRX_KEY_NAME, name.c_str()},
                       {BRX_KEY_SECTION_FLAGS, &flags},
                       {BRX_KEY_SECTION_ALIGNMENT, &alignment},
                       {BRX_KEY_SECTION_KIND, &kind}};
    BrxHandle section = 0;
    if (_brx_create_object(m_File, m_Format, BRX_KIND_SECTION, 4, attrs, &section, 0) != BRX_OK)
        return 0;
    if (size > 0) {
        std::vector<uint8_t> bytes(size, 0x90);
        BrxBytes data{size, 0, bytes.data()};
        if (_brx_set_value(section, BRX_KEY_SECTION_DATA, &data, 0) != BRX_OK)
            return 0;
    }
    return section;
}

BrxHandle ModuleBuilder::AddSymbol(const std::string &name, BrxHandle section, uint64_t offset,
                                   bool global, uint32_t type) {
    uint32_t storage = 0, binding = global ? BRX_BINDING_GLOBAL : BRX_BINDING_LOCAL;
    BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name.c_str()}, {BRX_KEY_SYMBOL_STORAGE, &storage},
                       {BRX_KEY_SYMBOL_BINDING, &binding},  {BRX_KEY_SYMBOL_TYPE, &type},
                       {BRX_KEY_SYMBOL_SECTION, &section},  {BRX_KEY_SYMBOL_OFFSET, &offset}};
    BrxHandle symbol = 0;
    if (_brx_create_object(m_SymbolTable, m_Format, BRX_KIND_SYMBOL, 6, attrs, &symbol, 0) !=
        BRX_OK)
        return 0;
    return symbol;
}

DbgStatus ModuleBuilder::OpenModule(const std::u16string &directory, const std::u16string &source,
                                    const std::u16string &producer, uint32_t noDebugInfo,
                                    DbgScope *out) {
    const uint16_t frontEnd[3] = {1, 2, 3};
    const uint16_t backEnd[3] = {4, 5, 6};
    DbgScope scope = nullptr;
    return Dbg_open_module_scope(m_File, 1, 0, noDebugInfo, 1, frontEnd, backEnd, producer.c_str(),
                                 directory.c_str(), source.c_str(), u"c:\\tools\\qasm.exe",
                                 out ? out : &scope);
}

DbgStatus ModuleBuilder::OpenSection(BrxHandle section, DbgScope *out) {
    DbgScope scope = nullptr;
    return Dbg_open_section_scope(section, out ? out : &scope);
}

DbgStatus ModuleBuilder::OpenProcedure(const std::vector<BrxHandle> &entries, uint64_t start,
                                       uint64_t end, DbgScope *out, DbgObject *procedure,
                                       DbgType type, uint32_t returnRegister) {
    DbgEntryList list{entries.data(), uint32_t(entries.size())};
    std::vector<DbgObjectProp> props = {{DBG_PROP_ENTRY_LIST, &list},
                                        {DBG_PROP_START, &start},
                                        {DBG_PROP_END, &end},
                                        {DBG_PROP_RETURN_REGISTER, &returnRegister}};
    if (type)
        props.push_back({DBG_PROP_PROC_TYPE, &type});
    DbgObject proc = nullptr;
    DbgStatus status =
        Dbg_create_object(DBG_OBJ_PROCEDURE, props.data(), uint32_t(props.size()), nullptr, &proc);
    if (status != DBG_ERR_NONE)
        return status;
    if (procedure)
        *procedure = proc;
    DbgScope scope = nullptr;
    return Dbg_open_procedure_scope(proc, out ? out : &scope);
}

DbgStatus ModuleBuilder::CodeLabel(BrxHandle symbol, DbgObject *out, DbgScope scope) {
    DbgObjectProp prop{DBG_PROP_SYMBOL, &symbol};
    DbgObject object = nullptr;
    return Dbg_create_object(DBG_OBJ_CODE_LABEL, &prop, 1, scope, out ? out : &object);
}

DbgStatus ModuleBuilder::DataLabel(BrxHandle symbol, int32_t baseType, DbgObject *out) {
    DbgObjectProp props[] = {{DBG_PROP_SYMBOL, &symbol}, {DBG_PROP_BASE_TYPE, &baseType}};
    DbgObject object = nullptr;
    return Dbg_create_object(DBG_OBJ_DATA_LABEL, props, baseType ? 2 : 1, nullptr,
                             out ? out : &object);
}

DbgStatus ModuleBuilder::Constant(const std::string &name, int32_t baseType, const void *value,
                                  DbgObject *out) {
    DbgObjectProp props[] = {
        {DBG_PROP_NAME, name.c_str()}, {DBG_PROP_BASE_TYPE, &baseType}, {DBG_PROP_VALUE, value}};
    DbgObject object = nullptr;
    return Dbg_create_object(DBG_OBJ_CONSTANT, props, 3, nullptr, out ? out : &object);
}

DbgStatus ModuleBuilder::Register(const std::string &name, int32_t baseType, uint32_t reg,
                                  DbgObject *out) {
    DbgObjectProp props[] = {
        {DBG_PROP_NAME, name.c_str()}, {DBG_PROP_BASE_TYPE, &baseType}, {DBG_PROP_REGISTER, &reg}};
    DbgObject object = nullptr;
    return Dbg_create_object(DBG_OBJ_ENREG_SYM, props, 3, nullptr, out ? out : &object);
}

DbgSource ModuleBuilder::Source(const std::u16string &name) {
    DbgSource source = nullptr;
    DbgLine_create_source(name.c_str(), &source);
    return source;
}

DbgStatus ModuleBuilder::Line(DbgSource source, uint32_t line, uint64_t offset, DbgScope scope) {
    DbgLineDesc desc{source, line, 1, uint32_t(offset), uint32_t(offset >> 32), 0};
    return Dbg_create_line(scope, &desc);
}

BrxHandle ModuleBuilder::FindSection(const std::string &name) const {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name.c_str()};
    BrxHandle section = 0;
    if (_brx_get_keyed(m_File, BRX_KEY_FIND, &find, &section, 0) != BRX_OK)
        return 0;
    return section;
}

std::vector<BrxHandle> ModuleBuilder::SectionsNamed(const std::string &name) const {
    std::vector<BrxHandle> found;
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name.c_str()};
    BrxHandle section = 0;
    while (_brx_get_keyed(m_File, BRX_KEY_FIND, &find, &section, 0) == BRX_OK) {
        found.push_back(section);
        find.after = section;
    }
    return found;
}

std::vector<uint8_t> ModuleBuilder::SectionBytes(const std::string &name) const {
    return SectionBytes(FindSection(name));
}

std::vector<uint8_t> ModuleBuilder::SectionBytes(BrxHandle section) const {
    uint64_t size = 0;
    if (!section || _brx_get_keyed(section, BRX_KEY_SECTION_SIZE, nullptr, &size, 0) != BRX_OK)
        return {};
    std::vector<uint8_t> bytes(size);
    BrxBytes data{size, 0, bytes.data()};
    if (size && _brx_get_keyed(section, BRX_KEY_SECTION_DATA, nullptr, &data, 0) != BRX_OK)
        return {};
    return bytes;
}

std::vector<ModuleBuilder::Relocation> ModuleBuilder::Relocations(BrxHandle section) const {
    std::vector<Relocation> relocations;
    BrxHandle previous = BRX_FIRST, next = 0;
    while (_brx_get_keyed(section, BRX_KEY_NEXT_RELOCATION, &previous, &next, 0) == BRX_OK) {
        Relocation r{0, 0, 0};
        _brx_get_keyed(next, BRX_KEY_RELOC_OFFSET, nullptr, &r.offset, 0);
        _brx_get_keyed(next, BRX_KEY_RELOC_TYPE, nullptr, &r.type, 0);
        _brx_get_keyed(next, BRX_KEY_RELOC_TARGET, nullptr, &r.target, 0);
        relocations.push_back(r);
        previous = next;
    }
    return relocations;
}

bool ModuleBuilder::Write() {
    return m_File && _brx_write_file(m_File) == BRX_OK;
}

} // namespace qtest
