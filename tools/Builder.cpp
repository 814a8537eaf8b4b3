#include "Builder.h"

#include "Status.h"
#include "Text.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace qdbg {

namespace {

// Releases the library state and the brix file however the build ends.
class Session {
public:
    ~Session() {
        if (m_bInitialised)
            Dbg_finish();
        if (m_hFile != 0)
            _brx_close_file(m_hFile);
    }
    void Initialise() {
        Dbg_init(0);
        m_bInitialised = true;
    }
    BrxHandle m_hFile = 0;

private:
    bool m_bInitialised = false;
};

// `valueLimit` is the rule that a refused property value of this call breaks, where one is known.
void Require(DbgStatus status, int line, const std::string &what,
             const std::string &valueLimit = std::string()) {
    if (status == DBG_ERR_NONE)
        return;
    std::string limit = status == DBG_ERR_BAD_PROPERTY_VALUE ? valueLimit : std::string();
    throw DescriptionError(line, what + " refused: " + DescribeStatus(status, limit));
}

void RequireBrix(int32_t result, int line, const std::string &what) {
    if (result != BRX_OK)
        throw DescriptionError(line, what + " failed (brix result " + std::to_string(result) + ")");
}

std::string WorkingDirectory() {
    std::vector<char> buffer(256);
    while (getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (buffer.size() > (1u << 20))
            return ".";
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

class Builder {
public:
    Builder(const Description &description, int format, uint32_t machine)
        : m_Desc(description), m_nFormat(format), m_nMachine(machine) {}

    void Run(const std::string &output) {
        RequireBrix(_brx_new_file(output.c_str(), m_nFormat, &m_Session.m_hFile), 0,
                    "creating the object file");
        RequireBrix(_brx_set_value(m_Session.m_hFile, BRX_KEY_MACHINE, &m_nMachine, 0), 0,
                    "setting the object file's machine");
        CreateSections();
        CreateSymbols();
        m_Session.Initialise();
        OpenModule();
        CreateSourcesAndTypes();
        for (const Step &step : m_Desc.steps)
            Replay(step);
        DbgStatus emitted = Dbg_emit();
        if (emitted == DBG_ERR_WRITE_FAILED && m_nFormat == BRX_FORMAT_COFF) {
            std::string unreadable = UnreadableSources();
            if (!unreadable.empty())
                throw DescriptionError(0, "emitting the debugging information refused: " +
                                              DescribeStatus(emitted) + ": " + unreadable);
        }
        Require(emitted, 0, "emitting the debugging information");
        int32_t written = _brx_write_file(m_Session.m_hFile);
        int error = errno;
        if (written == BRX_ERR_CANNOT_WRITE)
            throw DescriptionError(0, "cannot write " + output + ": " + std::strerror(error));
        RequireBrix(written, 0, "writing " + output);
    }

private:
    const Description &m_Desc;
    int m_nFormat;
    uint32_t m_nMachine;
    Session m_Session;
    std::vector<BrxHandle> m_Sections, m_Symbols;
    std::vector<DbgSource> m_Sources;
    std::vector<DbgType> m_ProcTypes;
    DbgScope m_Module = nullptr;

    // The rule that a register number breaks when the library refuses it: the default target
    // numbers its registers itself; the others take DWARF register numbers, and a register
    // symbol in CodeView needs one that the target's CodeView numbering has.
    std::string RegisterLimit(bool symbol) const {
        if (m_nMachine == BRX_MACHINE_ELF_DEFAULT || m_nMachine == BRX_MACHINE_COFF_DEFAULT)
            return "register numbers are 0 to 524";
        if (symbol && m_nFormat == BRX_FORMAT_COFF)
            return "the register has no CodeView number on this target";
        return "DWARF register numbers are 0 to 65535";
    }

    // CodeView output holds a checksum of every source file that a line entry of a section
    // names, so the library reads each of them; those that cannot be read, with the system's
    // reason. Line entries of the module itself are not written and their files not read.
    std::string UnreadableSources() const {
        std::vector<bool> named(m_Desc.sources.size(), false);
        bool inSection = false;
        for (const Step &step : m_Desc.steps) {
            inSection = inSection || step.kind == Step::OpenSection;
            if (step.kind == Step::Line && inSection)
                named[step.source] = true;
        }
        std::string found;
        for (size_t k = 0; k < named.size(); ++k) {
            if (!named[k])
                continue;
            const SourceDecl &decl = m_Desc.sources[k];
            if (std::FILE *in = std::fopen(decl.path.c_str(), "rb")) {
                std::fclose(in);
                continue;
            }
            int error = errno;
            found += (found.empty() ? "" : "; ") + std::string("source file '") + decl.path +
                     "' (line " + std::to_string(decl.line) +
                     ") cannot be read for its checksum: " + std::strerror(error);
        }
        return found;
    }

    void CreateSections() {
        for (const SectionDecl &decl : m_Desc.sections) {
            uint16_t flags = decl.code ? BRX_SECTION_CODE : 0;
            uint32_t alignment = decl.alignment;
            const BrxAttr attrs[] = {{BRX_KEY_NAME, decl.name.c_str()},
                                     {BRX_KEY_SECTION_FLAGS, &flags},
                                     {BRX_KEY_SECTION_ALIGNMENT, &alignment}};
            BrxHandle section = 0;
            RequireBrix(_brx_create_object(m_Session.m_hFile, m_nFormat, BRX_KIND_SECTION, 3, attrs,
                                           &section, 0),
                        decl.line, "creating section '" + decl.name + "'");
            if (!decl.bytes.empty()) {
                BrxBytes bytes = {decl.bytes.size(), 0, const_cast<uint8_t *>(decl.bytes.data())};
                RequireBrix(_brx_set_value(section, BRX_KEY_SECTION_DATA, &bytes, 0), decl.line,
                            "writing the bytes of section '" + decl.name + "'");
            }
            m_Sections.push_back(section);
        }
        for (size_t k = 0; k < m_Desc.sections.size(); ++k) {
            const SectionDecl &decl = m_Desc.sections[k];
            if (decl.comdat == 0)
                continue;
            BrxComdat comdat = {decl.comdat, decl.comdat == 5 ? m_Sections[decl.associate] : 0};
            RequireBrix(_brx_set_value(m_Sections[k], BRX_KEY_COMDAT, &comdat, 0), decl.line,
                        "making section '" + decl.name + "' a COMDAT section");
        }
    }

    void CreateSymbols() {
        if (m_Desc.symbols.empty())
            return;
        BrxFind find = {BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
        BrxHandle table = 0;
        RequireBrix(_brx_get_keyed(m_Session.m_hFile, BRX_KEY_FIND, &find, &table, 0), 0,
                    "finding the symbol table");
        for (const SymbolDecl &decl : m_Desc.symbols) {
            uint32_t storage = 0, binding = decl.binding, type = decl.type;
            BrxHandle section = m_Sections[decl.section];
            uint64_t offset = decl.offset;
            const BrxAttr attrs[] = {
                {BRX_KEY_SYMBOL_NAME, decl.name.c_str()}, {BRX_KEY_SYMBOL_STORAGE, &storage},
                {BRX_KEY_SYMBOL_BINDING, &binding},       {BRX_KEY_SYMBOL_TYPE, &type},
                {BRX_KEY_SYMBOL_SECTION, &section},       {BRX_KEY_SYMBOL_OFFSET, &offset}};
            BrxHandle symbol = 0;
            RequireBrix(_brx_create_object(table, m_nFormat, BRX_KIND_SYMBOL, 6, attrs, &symbol, 0),
                        decl.line, "creating symbol '" + decl.name + "'");
            m_Symbols.push_back(symbol);
        }
    }

    void OpenModule() {
        const ModuleDecl &m = m_Desc.module;
        std::u16string producer = ToUtf16(m.producer);
        std::u16string directory = ToUtf16(m.directory.empty() ? WorkingDirectory() : m.directory);
        std::u16string source = ToUtf16(m.source);
        std::u16string tool = ToUtf16(m.tool);
        Require(Dbg_open_module_scope(m_Session.m_hFile, m.language, m.editAndContinue,
                                      m.noDebugInfo, m.machine, m.frontEnd, m.backEnd,
                                      producer.c_str(), directory.c_str(), source.c_str(),
                                      tool.c_str(), &m_Module),
                m.line, "opening the module");
    }

    void CreateSourcesAndTypes() {
        for (const SourceDecl &decl : m_Desc.sources) {
            std::u16string name = ToUtf16(decl.path);
            DbgSource source = nullptr;
            Require(DbgLine_create_source(name.c_str(), &source), decl.line,
                    "registering source '" + decl.alias + "'");
            m_Sources.push_back(source);
        }
        for (const ProcTypeDecl &decl : m_Desc.procTypes) {
            DbgType returned = nullptr, type = nullptr;
            Require(Dbg_base_type(decl.returnCode, &returned), decl.line, "the return type");
            Require(Dbg_procedure_type(returned, decl.kind, &type), decl.line,
                    "procedure type '" + decl.alias + "'");
            m_ProcTypes.push_back(type);
        }
    }

    // Appends the type property of a data label, constant or register symbol.
    void AddType(const Step &step, std::vector<DbgObjectProp> &props) {
        if (!step.hasType)
            return;
        if (step.type.IsBasic())
            props.push_back({DBG_PROP_BASE_TYPE, &step.type.baseCode});
        else
            props.push_back({DBG_PROP_TYPE, &m_ProcTypes[step.type.procType]});
    }

    void CreateObject(const Step &step, int32_t kind, const std::vector<DbgObjectProp> &props,
                      const std::string &what, const std::string &valueLimit = std::string()) {
        DbgObject object = nullptr;
        Require(Dbg_create_object(kind, props.data(), static_cast<uint32_t>(props.size()), nullptr,
                                  &object),
                step.line, what, valueLimit);
    }

    void Replay(const Step &step) {
        std::vector<DbgObjectProp> props;
        switch (step.kind) {
        case Step::OpenSection: {
            // The section scope before it may hold procedures, which a close would refuse; the
            // module is made current again instead.
            Require(Dbg_set_current_scope(m_Module), step.line, "returning to the module scope");
            DbgScope scope = nullptr;
            Require(Dbg_open_section_scope(m_Sections[step.section], &scope), step.line,
                    "opening section '" + m_Desc.sections[step.section].name + "'");
            break;
        }
        case Step::Label:
        case Step::Data: {
            props.push_back({DBG_PROP_SYMBOL, &m_Symbols[step.symbol]});
            AddType(step, props);
            const std::string &name = m_Desc.symbols[step.symbol].name;
            CreateObject(step, step.kind == Step::Label ? DBG_OBJ_CODE_LABEL : DBG_OBJ_DATA_LABEL,
                         props,
                         (step.kind == Step::Label ? "label '" : "data label '") + name + "'");
            break;
        }
        case Step::Constant:
            props.push_back({DBG_PROP_NAME, step.name.c_str()});
            AddType(step, props);
            props.push_back({DBG_PROP_VALUE, step.value.data()});
            CreateObject(step, DBG_OBJ_CONSTANT, props, "constant '" + step.name + "'");
            break;
        case Step::Register:
            props.push_back({DBG_PROP_NAME, step.name.c_str()});
            AddType(step, props);
            props.push_back({DBG_PROP_REGISTER, &step.registerNumber});
            CreateObject(step, DBG_OBJ_ENREG_SYM, props, "register symbol '" + step.name + "'",
                         RegisterLimit(true));
            break;
        case Step::OpenProcedure:
            OpenProcedure(step);
            break;
        case Step::CloseProcedure:
            Require(Dbg_close_current_scope(), step.line, "closing the procedure");
            break;
        case Step::Line: {
            DbgLineDesc desc = {m_Sources[step.source],
                                step.lineNumber,
                                step.column,
                                static_cast<uint32_t>(step.base),
                                static_cast<uint32_t>(step.base >> 32),
                                step.offset};
            Require(Dbg_create_line(nullptr, &desc), step.line, "the line entry");
            break;
        }
        }
    }

    void OpenProcedure(const Step &step) {
        std::vector<BrxHandle> entries;
        for (size_t symbol : step.entries)
            entries.push_back(m_Symbols[symbol]);
        DbgEntryList list = {entries.data(), static_cast<uint32_t>(entries.size())};
        std::vector<DbgObjectProp> props = {{DBG_PROP_ENTRY_LIST, &list},
                                            {DBG_PROP_START, &step.start},
                                            {DBG_PROP_END, &step.end},
                                            {DBG_PROP_PROC_FLAGS, &step.flags}};
        if (step.hasType)
            props.push_back({DBG_PROP_PROC_TYPE, &m_ProcTypes[step.type.procType]});
        if (step.hasRegister)
            props.push_back({DBG_PROP_RETURN_REGISTER, &step.returnRegister});
        if (step.debugStart != 0 || step.debugEnd != 0) {
            props.push_back({DBG_PROP_DEBUG_START, &step.debugStart});
            props.push_back({DBG_PROP_DEBUG_END, &step.debugEnd});
        }
        const std::string &name = m_Desc.symbols[step.entries.front()].name;
        DbgObject procedure = nullptr;
        // A procedure's only value with a limit is its return register.
        Require(Dbg_create_object(DBG_OBJ_PROCEDURE, props.data(),
                                  static_cast<uint32_t>(props.size()), nullptr, &procedure),
                step.line, "procedure '" + name + "'", RegisterLimit(false));
        DbgScope scope = nullptr;
        Require(Dbg_open_procedure_scope(procedure, &scope), step.line,
                "opening procedure '" + name + "'");
    }
};

} // namespace

void BuildObject(const Description &description, const std::string &output, int format,
                 uint32_t machine) {
    Builder(description, format, machine).Run(output);
}

} // namespace qdbg
