#include "Description.h"

#include "Text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

namespace qdbg {

namespace {

struct BasicTypeName {
    const char *name;
    int32_t code;
    unsigned width;
};

// Odd base-type codes are unsigned, even ones signed; the "s" names are the signed twins.
const BasicTypeName kBasicTypes[] = {
    {"data1", 1, 1}, {"sdata1", 2, 1}, {"data2", 3, 2},    {"sdata2", 4, 2},
    {"data4", 5, 4}, {"sdata4", 6, 4}, {"data8", 7, 8},    {"sdata8", 8, 8},
    {"real4", 9, 4}, {"real8", 10, 8}, {"real10", 11, 10}, {"void", 12, 0},
};

const std::map<std::string, uint32_t> kComdatSelections = {
    {"nodup", 1}, {"any", 2}, {"samesize", 3}, {"exact", 4}, {"associative", 5}, {"largest", 6},
};

// One word of a statement: a bare or quoted value, or key=value.
struct Word {
    std::string key;
    std::string value;
    bool hasKey = false;
};

std::vector<Word> SplitWords(const std::string &text, int line) {
    std::vector<Word> words;
    size_t i = 0;
    auto readValue = [&](std::string &out) {
        if (i < text.size() && text[i] == '"') {
            ++i;
            while (true) {
                if (i >= text.size())
                    throw DescriptionError(line, "unterminated string");
                char c = text[i++];
                if (c == '"')
                    break;
                if (c == '\\' && i < text.size() && (text[i] == '"' || text[i] == '\\'))
                    c = text[i++];
                out.push_back(c);
            }
            if (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i])) &&
                text[i] != '#')
                throw DescriptionError(line, "text after a closing quote");
            return;
        }
        while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i])) &&
               text[i] != '#' && text[i] != '=' && text[i] != '"')
            out.push_back(text[i++]);
    };
    while (true) {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
        if (i >= text.size() || text[i] == '#')
            break;
        Word word;
        bool quoted = text[i] == '"';
        readValue(word.value);
        if (!quoted && i < text.size() && text[i] == '=') {
            if (word.value.empty())
                throw DescriptionError(line, "'=' without a name before it");
            ++i;
            word.key = word.value;
            word.value.clear();
            word.hasKey = true;
            readValue(word.value);
        } else if (i < text.size() && (text[i] == '"' || text[i] == '=')) {
            throw DescriptionError(line, "unexpected '" + std::string(1, text[i]) + "'");
        }
        words.push_back(word);
    }
    return words;
}

// The words of one statement: its keyword, its positional arguments and its key=value options.
class Statement {
public:
    Statement(int line, std::vector<Word> words) : m_nLine(line) {
        m_Keyword = words.front().value;
        if (words.front().hasKey)
            throw DescriptionError(line, "a line must begin with a keyword, not '" +
                                             words.front().key + "='");
        for (size_t k = 1; k < words.size(); ++k) {
            if (!words[k].hasKey) {
                m_Args.push_back(words[k].value);
            } else if (!m_Options.emplace(words[k].key, words[k].value).second) {
                throw DescriptionError(line, "option '" + words[k].key + "' given twice");
            }
        }
    }

    int Line() const { return m_nLine; }
    const std::string &Keyword() const { return m_Keyword; }
    const std::vector<std::string> &Args() const { return m_Args; }

    // Refuses a count of positional arguments outside [min, max].
    void ExpectArgs(size_t min, size_t max, const char *usage) const {
        if (m_Args.size() < min || m_Args.size() > max)
            throw DescriptionError(m_nLine, "usage: " + std::string(usage));
    }
    // Refuses any option not in the list.
    void AllowOptions(std::initializer_list<const char *> allowed) const {
        for (const auto &option : m_Options) {
            bool known = false;
            for (const char *name : allowed)
                known = known || option.first == name;
            if (!known)
                throw DescriptionError(m_nLine,
                                       "'" + m_Keyword + "' has no option '" + option.first + "'");
        }
    }
    std::optional<std::string> Option(const char *name) const {
        auto found = m_Options.find(name);
        if (found == m_Options.end())
            return std::nullopt;
        return found->second;
    }
    bool HasOptions() const { return !m_Options.empty(); }

private:
    int m_nLine;
    std::string m_Keyword;
    std::vector<std::string> m_Args;
    std::map<std::string, std::string> m_Options;
};

uint64_t Unsigned(int line, const std::string &text, const char *what, uint64_t max) {
    std::optional<uint64_t> value = ParseUnsigned(text);
    if (!value)
        throw DescriptionError(line, std::string(what) + " '" + text + "' is not a number");
    if (*value > max)
        throw DescriptionError(line,
                               std::string(what) + " " + text + " is above " + std::to_string(max));
    return *value;
}

void ParseVersion(int line, const std::string &text, uint16_t out[3]) {
    size_t first = text.find('.');
    size_t second = first == std::string::npos ? first : text.find('.', first + 1);
    if (second == std::string::npos || text.find('.', second + 1) != std::string::npos)
        throw DescriptionError(line, "version '" + text + "' is not MAJOR.MINOR.BUILD");
    std::string parts[3] = {text.substr(0, first), text.substr(first + 1, second - first - 1),
                            text.substr(second + 1)};
    for (int k = 0; k < 3; ++k)
        out[k] = static_cast<uint16_t>(Unsigned(line, parts[k], "version part", 0xFFFF));
}

uint32_t Flag(int line, const std::string &text, const char *what) {
    if (text == "yes" || text == "1")
        return 1;
    if (text == "no" || text == "0")
        return 0;
    throw DescriptionError(line, std::string(what) + " must be yes or no, not '" + text + "'");
}

std::vector<uint8_t> ParseHexBytes(int line, const std::string &text) {
    if (text.size() % 2 != 0)
        throw DescriptionError(line, "bytes= needs an even number of hexadecimal digits");
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (size_t k = 0; k < text.size(); k += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(text[k])) ||
            !std::isxdigit(static_cast<unsigned char>(text[k + 1])))
            throw DescriptionError(line, "bytes= holds a character that is not hexadecimal");
        bytes.push_back(static_cast<uint8_t>(std::strtoul(text.substr(k, 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

// The bytes of a constant's value, little-endian, exactly as wide as its basic type.
std::vector<uint8_t> EncodeValue(int line, int32_t code, const std::string &text,
                                 const std::string &typeName) {
    unsigned width = BaseTypeWidth(code);
    std::vector<uint8_t> bytes(width);
    if (code >= 9 && code <= 11) {
        char *end = nullptr;
        long double value = std::strtold(text.c_str(), &end);
        if (text.empty() || end != text.c_str() + text.size())
            throw DescriptionError(line, "value '" + text + "' is not a number");
        if (code == 9) {
            float narrow = static_cast<float>(value);
            std::memcpy(bytes.data(), &narrow, 4);
        } else if (code == 10) {
            double narrow = static_cast<double>(value);
            std::memcpy(bytes.data(), &narrow, 8);
        } else {
            static_assert(sizeof(long double) >= 10, "real10 needs the x87 extended format");
            std::memcpy(bytes.data(), &value, 10);
        }
        return bytes;
    }
    if (code == 12)
        throw DescriptionError(line, "a constant cannot have the type void");
    uint64_t raw = 0;
    bool isSigned = code % 2 == 0;
    if (isSigned) {
        std::optional<int64_t> value = ParseSigned(text);
        if (!value)
            throw DescriptionError(line, "value '" + text + "' is not a number");
        int64_t limit = width == 8 ? INT64_MAX : (int64_t(1) << (8 * width - 1)) - 1;
        if (*value > limit || *value < -limit - 1)
            throw DescriptionError(line, "value " + text + " does not fit " + typeName);
        raw = static_cast<uint64_t>(*value);
    } else {
        std::optional<uint64_t> value = ParseUnsigned(text);
        if (!value)
            throw DescriptionError(line, "value '" + text + "' is not a number" +
                                             (text[0] == '-' ? " of an unsigned type" : ""));
        if (width < 8 && *value >> (8 * width) != 0)
            throw DescriptionError(line, "value " + text + " does not fit " + typeName);
        raw = *value;
    }
    for (unsigned k = 0; k < width; ++k)
        bytes[k] = static_cast<uint8_t>(raw >> (8 * k));
    return bytes;
}

// Builds the Description statement by statement; names used before their declaration are
// resolved once the whole text has been read.
class Parser {
public:
    Description Run(const std::string &text) {
        size_t pos = 0;
        int line = 0;
        while (pos <= text.size()) {
            size_t next = text.find('\n', pos);
            if (next == std::string::npos)
                next = text.size();
            ++line;
            std::string content = text.substr(pos, next - pos);
            if (!content.empty() && content.back() == '\r')
                content.pop_back();
            std::vector<Word> words = SplitWords(content, line);
            if (!words.empty())
                Handle(Statement(line, std::move(words)));
            pos = next + 1;
        }
        if (m_nOpenProcedureLine != 0)
            throw DescriptionError(m_nOpenProcedureLine, "procedure has no 'end'");
        if (m_Out.module.line == 0)
            throw DescriptionError(0, "the description has no 'module' line");
        Resolve();
        return std::move(m_Out);
    }

private:
    // Names that steps use, resolved after the last line.
    struct PendingNames {
        size_t step;
        std::vector<std::string> symbols;
        std::string typeName;
    };

    Description m_Out;
    std::map<std::string, size_t> m_SourceByAlias, m_ProcTypeByAlias, m_SectionByName,
        m_SymbolByName;
    std::vector<PendingNames> m_Pending;
    bool m_bInSection = false;
    size_t m_nCurrentSection = 0;
    int m_nOpenProcedureLine = 0;

    void Handle(const Statement &s) {
        const std::string &k = s.Keyword();
        if (k != "module" && m_Out.module.line == 0)
            throw DescriptionError(s.Line(), "the first statement must be 'module'");
        if (k == "module")
            Module(s);
        else if (k == "source")
            Source(s);
        else if (k == "proctype")
            ProcType(s);
        else if (k == "section")
            Section(s);
        else if (k == "symbol")
            Symbol(s);
        else if (k == "label" || k == "data")
            LabelOrData(s);
        else if (k == "constant")
            Constant(s);
        else if (k == "register")
            Register(s);
        else if (k == "procedure")
            Procedure(s);
        else if (k == "end")
            End(s);
        else if (k == "line" || k == "lines")
            Lines(s);
        else
            throw DescriptionError(s.Line(), "unknown keyword '" + k + "'");
    }

    void Module(const Statement &s) {
        if (m_Out.module.line != 0)
            throw DescriptionError(s.Line(), "a second 'module' line (the first is on line " +
                                                 std::to_string(m_Out.module.line) + ")");
        s.ExpectArgs(0, 0, "module source=NAME [option=value ...]");
        s.AllowOptions({"source", "directory", "producer", "tool", "language", "machine",
                        "front-end", "back-end", "edit-and-continue", "no-debug-info"});
        ModuleDecl &m = m_Out.module;
        m.line = s.Line();
        std::optional<std::string> source = s.Option("source");
        if (!source || source->empty())
            throw DescriptionError(s.Line(), "'module' needs source=NAME");
        m.source = *source;
        if (auto v = s.Option("directory"))
            m.directory = *v;
        if (auto v = s.Option("producer"))
            m.producer = *v;
        if (auto v = s.Option("tool"))
            m.tool = *v;
        if (auto v = s.Option("language"))
            m.language = static_cast<uint32_t>(Unsigned(s.Line(), *v, "language", UINT32_MAX));
        if (auto v = s.Option("machine"))
            m.machine = static_cast<uint32_t>(Unsigned(s.Line(), *v, "machine", UINT32_MAX));
        if (auto v = s.Option("front-end"))
            ParseVersion(s.Line(), *v, m.frontEnd);
        if (auto v = s.Option("back-end"))
            ParseVersion(s.Line(), *v, m.backEnd);
        if (auto v = s.Option("edit-and-continue"))
            m.editAndContinue = Flag(s.Line(), *v, "edit-and-continue");
        if (auto v = s.Option("no-debug-info"))
            m.noDebugInfo = Flag(s.Line(), *v, "no-debug-info");
    }

    void Source(const Statement &s) {
        s.ExpectArgs(2, 2, "source ALIAS PATH");
        s.AllowOptions({});
        const std::string &alias = s.Args()[0];
        if (s.Args()[1].empty())
            throw DescriptionError(s.Line(), "source '" + alias + "' has an empty path");
        auto inserted = m_SourceByAlias.emplace(alias, m_Out.sources.size());
        if (!inserted.second)
            throw DescriptionError(s.Line(),
                                   "source '" + alias + "' is already declared on line " +
                                       std::to_string(m_Out.sources[inserted.first->second].line));
        m_Out.sources.push_back({s.Line(), alias, s.Args()[1]});
    }

    void ProcType(const Statement &s) {
        s.ExpectArgs(1, 1, "proctype ALIAS [returns=BASICTYPE] [kind=1|2]");
        s.AllowOptions({"returns", "kind"});
        ProcTypeDecl decl;
        decl.line = s.Line();
        decl.alias = s.Args()[0];
        if (BaseTypeCode(decl.alias) != 0)
            throw DescriptionError(s.Line(), "'" + decl.alias + "' is the name of a basic type");
        if (auto v = s.Option("returns")) {
            decl.returnCode = BaseTypeCode(*v);
            if (decl.returnCode == 0)
                throw DescriptionError(s.Line(), m_ProcTypeByAlias.count(*v)
                                                     ? "a procedure type must return a basic type"
                                                     : "unknown type '" + *v + "'");
        }
        if (auto v = s.Option("kind")) {
            decl.kind = static_cast<uint32_t>(Unsigned(s.Line(), *v, "kind", UINT32_MAX));
            if (decl.kind != 1 && decl.kind != 2)
                throw DescriptionError(s.Line(), "procedure kind must be 1 or 2, not " + *v);
        }
        if (!m_ProcTypeByAlias.emplace(decl.alias, m_Out.procTypes.size()).second)
            throw DescriptionError(s.Line(), "type '" + decl.alias + "' is already declared");
        m_Out.procTypes.push_back(decl);
    }

    void Section(const Statement &s) {
        if (m_nOpenProcedureLine != 0)
            throw DescriptionError(s.Line(), "'section' inside a procedure (opened on line " +
                                                 std::to_string(m_nOpenProcedureLine) + ")");
        s.ExpectArgs(1, 2,
                     "section NAME [code] [align=N] [size=N] [bytes=HEX] [fill=BYTE] "
                     "[comdat=SELECTION] [associate=SECTION]");
        s.AllowOptions({"align", "size", "bytes", "fill", "comdat", "associate"});
        const std::string &name = s.Args()[0];
        if (name.empty())
            throw DescriptionError(s.Line(), "a section needs a name");
        auto known = m_SectionByName.find(name);
        size_t index;
        if (known != m_SectionByName.end()) {
            // Returning to a section: a new section scope on the same section.
            if (s.Args().size() > 1 || s.HasOptions())
                throw DescriptionError(s.Line(),
                                       "section '" + name + "' is already defined on line " +
                                           std::to_string(m_Out.sections[known->second].line) +
                                           "; a repeated 'section' line takes no attributes");
            index = known->second;
        } else {
            SectionDecl decl;
            decl.line = s.Line();
            decl.name = name;
            if (s.Args().size() > 1) {
                if (s.Args()[1] != "code")
                    throw DescriptionError(s.Line(),
                                           "unknown section attribute '" + s.Args()[1] + "'");
                decl.code = true;
            }
            if (auto v = s.Option("align")) {
                decl.alignment = static_cast<uint32_t>(Unsigned(s.Line(), *v, "alignment", 8192));
                if (decl.alignment == 0 || (decl.alignment & (decl.alignment - 1)) != 0)
                    throw DescriptionError(s.Line(), "alignment " + *v + " is not a power of two");
            }
            auto bytes = s.Option("bytes");
            auto size = s.Option("size");
            uint8_t fill = 0;
            if (auto v = s.Option("fill"))
                fill = static_cast<uint8_t>(Unsigned(s.Line(), *v, "fill byte", 0xFF));
            if (bytes)
                decl.bytes = ParseHexBytes(s.Line(), *bytes);
            if (size) {
                // Sections are held in memory while the object is built; a gigabyte is plenty
                // for a description and keeps a typing slip from exhausting the machine.
                uint64_t n = Unsigned(s.Line(), *size, "size", uint64_t(1) << 30);
                if (n < decl.bytes.size())
                    throw DescriptionError(s.Line(), "size " + *size + " is below the " +
                                                         std::to_string(decl.bytes.size()) +
                                                         " bytes given");
                decl.bytes.resize(n, fill);
            }
            if (auto v = s.Option("comdat")) {
                auto selection = kComdatSelections.find(*v);
                if (selection == kComdatSelections.end())
                    throw DescriptionError(s.Line(), "unknown COMDAT selection '" + *v + "'");
                decl.comdat = selection->second;
            }
            auto associate = s.Option("associate");
            if ((decl.comdat == 5) != associate.has_value())
                throw DescriptionError(s.Line(),
                                       "comdat=associative and associate=SECTION go together");
            if (associate) {
                auto target = m_SectionByName.find(*associate);
                if (target == m_SectionByName.end())
                    throw DescriptionError(s.Line(), "unknown section '" + *associate + "'");
                decl.associate = target->second;
            }
            index = m_Out.sections.size();
            m_SectionByName.emplace(name, index);
            m_Out.sections.push_back(std::move(decl));
        }
        m_bInSection = true;
        m_nCurrentSection = index;
        Step step;
        step.kind = Step::OpenSection;
        step.line = s.Line();
        step.section = index;
        m_Out.steps.push_back(step);
    }

    void Symbol(const Statement &s) {
        s.ExpectArgs(2, 4, "symbol NAME OFFSET [global|local] [function|plain] [section=NAME]");
        s.AllowOptions({"section"});
        SymbolDecl decl;
        decl.line = s.Line();
        decl.name = s.Args()[0];
        if (decl.name.empty())
            throw DescriptionError(s.Line(), "a symbol needs a name");
        decl.offset = Unsigned(s.Line(), s.Args()[1], "offset", UINT64_MAX);
        bool bindingGiven = false, typeGiven = false;
        for (size_t k = 2; k < s.Args().size(); ++k) {
            const std::string &word = s.Args()[k];
            if ((word == "global" || word == "local") && !bindingGiven) {
                decl.binding = word == "global" ? 2 : 1;
                bindingGiven = true;
            } else if ((word == "function" || word == "plain") && !typeGiven) {
                decl.type = word == "function" ? 2 : 0;
                typeGiven = true;
            } else {
                throw DescriptionError(s.Line(), "unexpected symbol attribute '" + word + "'");
            }
        }
        if (auto v = s.Option("section")) {
            auto target = m_SectionByName.find(*v);
            if (target == m_SectionByName.end())
                throw DescriptionError(s.Line(), "unknown section '" + *v + "'");
            decl.section = target->second;
        } else if (m_bInSection) {
            decl.section = m_nCurrentSection;
        } else {
            throw DescriptionError(s.Line(), "a symbol outside a section needs section=NAME");
        }
        if (decl.offset > m_Out.sections[decl.section].bytes.size())
            throw DescriptionError(
                s.Line(), "offset " + s.Args()[1] + " lies beyond the " +
                              std::to_string(m_Out.sections[decl.section].bytes.size()) +
                              " bytes of section '" + m_Out.sections[decl.section].name + "'");
        auto inserted = m_SymbolByName.emplace(decl.name, m_Out.symbols.size());
        if (!inserted.second)
            throw DescriptionError(s.Line(),
                                   "symbol '" + decl.name + "' is already defined on line " +
                                       std::to_string(m_Out.symbols[inserted.first->second].line));
        m_Out.symbols.push_back(decl);
    }

    // A type word of a data label, constant or register symbol.
    void SetType(Step &step, const std::string &name) {
        int32_t code = BaseTypeCode(name);
        step.hasType = true;
        if (code != 0) {
            step.type.baseCode = code;
            return;
        }
        auto proc = m_ProcTypeByAlias.find(name);
        if (proc == m_ProcTypeByAlias.end())
            throw DescriptionError(step.line, "unknown type '" + name + "'");
        if (step.kind != Step::Data)
            throw DescriptionError(
                step.line, "'" + name + "' is a procedure type; " +
                               (step.kind == Step::Constant ? "a constant" : "a register symbol") +
                               " needs a basic type");
        step.type.procType = proc->second;
    }

    void LabelOrData(const Statement &s) {
        bool isLabel = s.Keyword() == "label";
        if (isLabel)
            s.ExpectArgs(1, 1, "label SYMBOL");
        else
            s.ExpectArgs(1, 2, "data SYMBOL [TYPE]");
        s.AllowOptions({});
        Step step;
        step.kind = isLabel ? Step::Label : Step::Data;
        step.line = s.Line();
        if (s.Args().size() == 2)
            SetType(step, s.Args()[1]);
        m_Pending.push_back({m_Out.steps.size(), {s.Args()[0]}, ""});
        m_Out.steps.push_back(step);
    }

    void Constant(const Statement &s) {
        s.ExpectArgs(3, 3, "constant NAME TYPE VALUE");
        s.AllowOptions({});
        Step step;
        step.kind = Step::Constant;
        step.line = s.Line();
        step.name = s.Args()[0];
        SetType(step, s.Args()[1]);
        step.value = EncodeValue(s.Line(), step.type.baseCode, s.Args()[2], s.Args()[1]);
        m_Out.steps.push_back(step);
    }

    void Register(const Statement &s) {
        s.ExpectArgs(3, 3, "register NAME TYPE NUMBER");
        s.AllowOptions({});
        Step step;
        step.kind = Step::Register;
        step.line = s.Line();
        step.name = s.Args()[0];
        SetType(step, s.Args()[1]);
        step.registerNumber =
            static_cast<uint32_t>(Unsigned(s.Line(), s.Args()[2], "register", UINT32_MAX));
        step.hasRegister = true;
        m_Out.steps.push_back(step);
    }

    void Procedure(const Statement &s) {
        if (m_nOpenProcedureLine != 0)
            throw DescriptionError(s.Line(), "a procedure inside a procedure (opened on line " +
                                                 std::to_string(m_nOpenProcedureLine) + ")");
        if (!m_bInSection)
            throw DescriptionError(s.Line(), "a procedure must stand in a section");
        s.ExpectArgs(1, 1, "procedure ENTRY[,ENTRY...] end=OFFSET [option=value ...]");
        s.AllowOptions(
            {"start", "end", "type", "return-register", "flags", "debug-start", "debug-end"});
        Step step;
        step.kind = Step::OpenProcedure;
        step.line = s.Line();
        std::vector<std::string> entries;
        const std::string &list = s.Args()[0];
        size_t from = 0;
        while (true) {
            size_t comma = list.find(',', from);
            std::string name = list.substr(from, comma == std::string::npos ? comma : comma - from);
            if (name.empty())
                throw DescriptionError(s.Line(), "empty name in the entry list '" + list + "'");
            entries.push_back(name);
            if (comma == std::string::npos)
                break;
            from = comma + 1;
        }
        auto end = s.Option("end");
        if (!end)
            throw DescriptionError(s.Line(), "'procedure' needs end=OFFSET");
        step.end = Unsigned(s.Line(), *end, "end", UINT64_MAX);
        if (auto v = s.Option("start")) {
            step.start = Unsigned(s.Line(), *v, "start", UINT64_MAX);
            step.hasStart = true;
        }
        std::string typeName;
        if (auto v = s.Option("type")) {
            if (BaseTypeCode(*v) != 0)
                throw DescriptionError(s.Line(), "'" + *v +
                                                     "' is a basic type; a procedure "
                                                     "needs a procedure type");
            typeName = *v;
            step.hasType = true;
        }
        if (auto v = s.Option("return-register")) {
            step.returnRegister =
                static_cast<uint32_t>(Unsigned(s.Line(), *v, "return-register", UINT32_MAX));
            step.hasRegister = true;
        }
        if (auto v = s.Option("flags"))
            step.flags = static_cast<uint16_t>(Unsigned(s.Line(), *v, "flags", 0xFFFF));
        if (auto v = s.Option("debug-start"))
            step.debugStart =
                static_cast<uint32_t>(Unsigned(s.Line(), *v, "debug-start", UINT32_MAX));
        if (auto v = s.Option("debug-end"))
            step.debugEnd = static_cast<uint32_t>(Unsigned(s.Line(), *v, "debug-end", UINT32_MAX));
        m_nOpenProcedureLine = s.Line();
        m_Pending.push_back({m_Out.steps.size(), entries, typeName});
        m_Out.steps.push_back(step);
    }

    void End(const Statement &s) {
        s.ExpectArgs(0, 0, "end");
        s.AllowOptions({});
        if (m_nOpenProcedureLine == 0)
            throw DescriptionError(s.Line(), "'end' without an open procedure");
        m_nOpenProcedureLine = 0;
        Step step;
        step.kind = Step::CloseProcedure;
        step.line = s.Line();
        m_Out.steps.push_back(step);
    }

    void Lines(const Statement &s) {
        bool single = s.Keyword() == "line";
        if (single) {
            s.ExpectArgs(3, 3, "line SOURCE LINE OFFSET [column=N] [base=N]");
            s.AllowOptions({"column", "base"});
        } else {
            s.ExpectArgs(2, SIZE_MAX, "lines SOURCE LINE:OFFSET ...");
            s.AllowOptions({});
        }
        auto source = m_SourceByAlias.find(s.Args()[0]);
        if (source == m_SourceByAlias.end())
            throw DescriptionError(s.Line(), "unknown source '" + s.Args()[0] + "'");
        Step step;
        step.kind = Step::Line;
        step.line = s.Line();
        step.source = source->second;
        if (single) {
            step.lineNumber =
                static_cast<uint32_t>(Unsigned(s.Line(), s.Args()[1], "line", UINT32_MAX));
            step.offset =
                static_cast<uint32_t>(Unsigned(s.Line(), s.Args()[2], "offset", UINT32_MAX));
            if (auto v = s.Option("column"))
                step.column = static_cast<uint32_t>(Unsigned(s.Line(), *v, "column", UINT32_MAX));
            if (auto v = s.Option("base"))
                step.base = Unsigned(s.Line(), *v, "base", UINT64_MAX);
            m_Out.steps.push_back(step);
            return;
        }
        for (size_t k = 1; k < s.Args().size(); ++k) {
            const std::string &pair = s.Args()[k];
            size_t colon = pair.find(':');
            if (colon == std::string::npos)
                throw DescriptionError(s.Line(), "'" + pair + "' is not LINE:OFFSET");
            step.lineNumber = static_cast<uint32_t>(
                Unsigned(s.Line(), pair.substr(0, colon), "line", UINT32_MAX));
            step.offset = static_cast<uint32_t>(
                Unsigned(s.Line(), pair.substr(colon + 1), "offset", UINT32_MAX));
            m_Out.steps.push_back(step);
        }
    }

    size_t LookupSymbol(int line, const std::string &name) {
        auto found = m_SymbolByName.find(name);
        if (found == m_SymbolByName.end())
            throw DescriptionError(line, "unknown symbol '" + name + "'");
        return found->second;
    }

    void Resolve() {
        for (const PendingNames &pending : m_Pending) {
            Step &step = m_Out.steps[pending.step];
            if (step.kind == Step::OpenProcedure) {
                for (const std::string &name : pending.symbols)
                    step.entries.push_back(LookupSymbol(step.line, name));
                if (!pending.typeName.empty()) {
                    auto type = m_ProcTypeByAlias.find(pending.typeName);
                    if (type == m_ProcTypeByAlias.end())
                        throw DescriptionError(step.line,
                                               "unknown type '" + pending.typeName + "'");
                    step.type.procType = type->second;
                }
                if (!step.hasStart) {
                    // The start is the main symbol's offset: the lowest entry, the first among
                    // equals.
                    step.start = UINT64_MAX;
                    for (size_t entry : step.entries)
                        step.start = std::min(step.start, m_Out.symbols[entry].offset);
                }
                if (step.end < step.start)
                    throw DescriptionError(step.line, "end " + Hex(step.end) +
                                                          " lies before start " + Hex(step.start));
            } else {
                step.symbol = LookupSymbol(step.line, pending.symbols.front());
            }
        }
    }
};

} // namespace

int32_t BaseTypeCode(const std::string &name) {
    for (const BasicTypeName &type : kBasicTypes)
        if (name == type.name)
            return type.code;
    return 0;
}

unsigned BaseTypeWidth(int32_t code) {
    for (const BasicTypeName &type : kBasicTypes)
        if (code == type.code)
            return type.width;
    return 0;
}

Description ParseDescription(const std::string &text) {
    return Parser().Run(text);
}

} // namespace qdbg
