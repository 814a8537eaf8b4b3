#include "Query.h"

#include "ObjectLines.h"
#include "Output.h"
#include "Status.h"
#include "Text.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qdbg {

namespace {

void Fail(const std::string &message) {
    std::fprintf(stderr, "qdbg: %s\n", message.c_str());
}

int Usage(const std::string &message, const std::string &command) {
    std::fprintf(stderr, "qdbg: %s\nTry 'qdbg %s --help'.\n", message.c_str(), command.c_str());
    return kExitUsage;
}

struct Arguments {
    bool json = false;
    bool functions = false;             // addr -f
    std::optional<std::string> section; // addr --section
    std::vector<std::string> operands;
};

// The options of the query commands, anywhere before "--"; an empty result when all are known.
std::string ParseArguments(const std::string &command, const std::vector<std::string> &args,
                           Arguments &out) {
    bool options = true;
    for (size_t k = 0; k < args.size(); ++k) {
        const std::string &arg = args[k];
        bool isAddr = command == "addr";
        if (!options || arg.size() < 2 || arg[0] != '-') {
            out.operands.push_back(arg);
        } else if (arg == "--") {
            options = false;
        } else if (arg == "--json") {
            out.json = true;
        } else if (isAddr && (arg == "-f" || arg == "--functions")) {
            out.functions = true;
        } else if (isAddr && arg == "--section") {
            if (k + 1 >= args.size())
                return "--section needs a section name";
            out.section = args[++k];
        } else if (isAddr && arg.rfind("--section=", 0) == 0) {
            out.section = arg.substr(std::strlen("--section="));
        } else {
            return "unknown option '" + arg + "'";
        }
    }
    return std::string();
}

bool OpenObject(ObjectLines &object, const std::string &path) {
    std::string error;
    if (object.Open(path, error))
        return true;
    Fail(error);
    return false;
}

// One row, in the form `lines` and `line` print it.
void PutRow(Output &out, ObjectLines &object, size_t section, const DbgLineRow &row, bool json) {
    const std::string &name = object.Sections()[section].name;
    const std::string *file = object.FileName(row.file_index);
    uint64_t address = object.AddressOf(section, row.offset);
    if (json) {
        out.Put("{\"section\": ").PutJsonString(name);
        out.Put(", \"offset\": ").PutDecimal(row.offset);
        out.Put(", \"address\": ").PutDecimal(address);
        out.Put(", \"line\": ").PutDecimal(row.line);
        out.Put(", \"column\": ").PutDecimal(row.column);
        out.Put(", \"file\": ");
        if (file)
            out.PutJsonString(*file);
        else
            out.Put("null");
        out.Put("}\n");
        return;
    }
    out.Put(name).Put(' ').PutHex(address).Put(' ').PutDecimal(row.line).Put(' ');
    out.PutDecimal(row.column).Put(' ').Put(file ? std::string_view(*file) : "??").Put('\n');
}

// Calls visit(section, row) for every row of every section, in section order and then in table
// order. False (with the fault reported) when the library refuses.
template <class Visit> bool ForEachRow(ObjectLines &object, Visit visit) {
    std::vector<DbgLineRow> rows(4096);
    for (size_t section = 0; section < object.Sections().size(); ++section) {
        const ObjectLines::Section &s = object.Sections()[section];
        if (s.bookkeeping)
            continue;
        DbgLineSectionHandle *handle = nullptr;
        DbgStatus status = object.Lines(section, handle);
        for (uint64_t first = 0; status == DBG_ERR_NONE;) {
            uint64_t count = rows.size();
            status = DbgLine_get_rows(handle, first, rows.data(), &count);
            if (status != DBG_ERR_NONE || count == 0)
                break;
            for (uint64_t k = 0; k < count; ++k)
                visit(section, rows[k]);
            first += count;
        }
        if (status != DBG_ERR_NONE) {
            Fail("section " + s.name + ": " + DescribeStatus(status));
            return false;
        }
    }
    return true;
}

int ListLines(const Arguments &args) {
    if (args.operands.size() != 1)
        return Usage("lines takes one object file", "lines");
    ObjectLines object;
    if (!OpenObject(object, args.operands[0]))
        return kExitFailed;
    Output out;
    bool listed = ForEachRow(object, [&](size_t section, const DbgLineRow &row) {
        PutRow(out, object, section, row, args.json);
    });
    return listed && out.Flush() ? kExitOk : kExitFailed;
}

// Answers addresses one after another, each as addr2line would (or as one JSON object).
class AddressAnswers {
public:
    AddressAnswers(ObjectLines &object, Output &out, const Arguments &args, size_t section)
        : m_Object(object), m_Out(out), m_bJson(args.json), m_bFunctions(args.functions),
          m_nSection(section) {}

    // False when the library refused (reported); a missing row is an answer, not a fault.
    bool Answer(uint64_t address) {
        size_t section = m_nSection;
        uint64_t offset = address;
        if (section == ObjectLines::kNone) {
            section = m_Object.SectionAt(address);
            if (section != ObjectLines::kNone)
                offset = address - m_Object.Sections()[section].address;
        }
        DbgLineRow row{};
        bool found = false;
        std::string_view function;
        if (section != ObjectLines::kNone) {
            DbgLineSectionHandle *handle = nullptr;
            DbgStatus status = m_Object.Lines(section, handle);
            if (status == DBG_ERR_NONE)
                status = DbgLine_find_row(handle, offset, &row, nullptr);
            found = status == DBG_ERR_NONE;
            if (!found && status != DBG_ERR_NO_LINE_AT_OFFSET) {
                Fail("section " + m_Object.Sections()[section].name + ": " +
                     DescribeStatus(status));
                return false;
            }
            if (m_bFunctions)
                function = m_Object.FunctionAt(section, offset);
        }
        if (!found)
            m_bAllFound = false;
        const std::string *file = found ? m_Object.FileName(row.file_index) : nullptr;
        Put(&address, function, file, found ? row.line : 0, found ? row.column : 0, found);
        return true;
    }

    // An input line that is not an address still gets an answer, so that answers stay in step
    // with the input.
    void AnswerUnreadable(std::string_view text) {
        Fail("'" + std::string(text) + "' is not an address");
        m_bUnreadable = true;
        Put(nullptr, std::string_view(), nullptr, 0, 0, false);
    }

    int ExitCode() const {
        return m_bUnreadable ? kExitFailed : m_bAllFound ? kExitOk : kExitNotFound;
    }

private:
    void Put(const uint64_t *address, std::string_view function, const std::string *file,
             uint32_t line, uint32_t column, bool found) {
        if (m_bJson) {
            m_Out.Put("{\"address\": ");
            if (address)
                m_Out.PutDecimal(*address);
            else
                m_Out.Put("null");
            if (m_bFunctions) {
                m_Out.Put(", \"function\": ");
                if (function.empty())
                    m_Out.Put("null");
                else
                    m_Out.PutJsonString(function);
            }
            m_Out.Put(", \"file\": ");
            if (file)
                m_Out.PutJsonString(*file);
            else
                m_Out.Put("null");
            m_Out.Put(", \"line\": ").PutDecimal(line);
            m_Out.Put(", \"column\": ").PutDecimal(column).Put("}\n");
            return;
        }
        if (m_bFunctions)
            m_Out.Put(function.empty() ? std::string_view("??") : function).Put('\n');
        if (!found) {
            m_Out.Put("??:0\n");
            return;
        }
        // A row without a line (code that belongs to no source line) prints as FILE:?.
        m_Out.Put(file ? std::string_view(*file) : "??").Put(':');
        if (line != 0)
            m_Out.PutDecimal(line).Put('\n');
        else
            m_Out.Put("?\n");
    }

    ObjectLines &m_Object;
    Output &m_Out;
    bool m_bJson, m_bFunctions;
    size_t m_nSection; // kNone: addresses are virtual addresses
    bool m_bAllFound = true, m_bUnreadable = false;
};

// Calls answer(line) for each line of standard input as soon as it has been read. The output
// is written out whenever the input has to be waited for, so that a person (or a program) that
// writes one address and waits gets its answer, while a stream of addresses is answered in
// large writes.
template <class Answer> bool ForEachInputLine(Output &out, Answer answer) {
    std::vector<char> buffer(64 * 1024);
    size_t held = 0, scanned = 0;
    while (true) {
        if (!out.Flush())
            return false;
        if (held == buffer.size())
            buffer.resize(buffer.size() * 2); // one very long line
        ssize_t got = read(0, buffer.data() + held, buffer.size() - held);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            Fail(std::string("cannot read standard input: ") + std::strerror(errno));
            return false;
        }
        if (got == 0) {
            if (held > 0 && !answer(std::string_view(buffer.data(), held)))
                return false;
            return true;
        }
        held += size_t(got);
        size_t start = 0;
        while (const void *newline = std::memchr(buffer.data() + scanned, '\n', held - scanned)) {
            size_t end = size_t(static_cast<const char *>(newline) - buffer.data());
            if (!answer(std::string_view(buffer.data() + start, end - start)))
                return false;
            start = scanned = end + 1;
        }
        std::memmove(buffer.data(), buffer.data() + start, held - start);
        held -= start;
        scanned = held;
    }
}

int AddressToLine(const Arguments &args) {
    if (args.operands.empty())
        return Usage("addr needs an object file", "addr");
    ObjectLines object;
    if (!OpenObject(object, args.operands[0]))
        return kExitFailed;
    // Offsets in one section: always in a relocatable object, and in a linked one when asked.
    size_t section = ObjectLines::kNone;
    if (args.section || !object.Linked()) {
        std::string name = args.section.value_or(".text");
        section = object.FindSection(name);
        if (section == ObjectLines::kNone) {
            Fail(args.operands[0] + " has no section " + name);
            return kExitFailed;
        }
    }
    Output out;
    AddressAnswers answers(object, out, args, section);
    auto answerText = [&](std::string_view text) {
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
            text.remove_suffix(1);
        if (text.find_first_not_of(" \t") == std::string_view::npos)
            return true; // blank lines ask nothing
        std::optional<uint64_t> address = ParseAddress(text);
        if (!address) {
            answers.AnswerUnreadable(text);
            return true;
        }
        return answers.Answer(*address);
    };
    bool answered = true;
    if (args.operands.size() > 1) {
        for (size_t k = 1; k < args.operands.size() && answered; ++k)
            answered = answerText(args.operands[k]);
    } else {
        answered = ForEachInputLine(out, answerText);
    }
    if (!out.Flush() || !answered)
        return kExitFailed;
    return answers.ExitCode();
}

int LineToAddress(const Arguments &args) {
    const std::vector<std::string> &operands = args.operands;
    if (operands.size() != 3 && operands.size() != 4)
        return Usage("usage: qdbg line OBJECT SOURCE LINE [COLUMN]", "line");
    std::optional<uint64_t> line = ParseUnsigned(operands[2]);
    if (!line || *line > UINT32_MAX)
        return Usage("line '" + operands[2] + "' is not a line number", "line");
    std::optional<uint64_t> column;
    if (operands.size() == 4) {
        column = ParseUnsigned(operands[3]);
        if (!column || *column > UINT32_MAX)
            return Usage("column '" + operands[3] + "' is not a column number", "line");
    }
    ObjectLines object;
    if (!OpenObject(object, operands[0]))
        return kExitFailed;
    const std::string &source = operands[1];
    std::vector<bool> named(object.FileCount());
    bool anyNamed = false;
    for (uint32_t index = 0; index < named.size(); ++index) {
        const std::string *path = object.FileName(index);
        named[index] = path && NamesSource(*path, source);
        anyNamed = anyNamed || named[index];
    }
    if (!anyNamed) {
        Fail(operands[0] + " has no line information for " + source);
        return kExitNotFound;
    }

    // Code of the line starts where a run of its rows starts: the first row of a sequence, or
    // one whose row before is not of the same place (several rows at one address, or a line
    // whose code goes on over several rows, count once).
    Output out;
    bool found = false, previousMatched = false;
    struct Place {
        size_t section;
        DbgLineRow row;
    };
    std::optional<Place> nearest; // the first place of the greatest line below LINE
    bool listed = ForEachRow(object, [&](size_t section, const DbgLineRow &row) {
        bool ofSource = row.file_index < named.size() && named[row.file_index];
        bool matched = ofSource && row.line == *line && (!column || row.column == *column);
        bool runStart = (row.flags & DBG_ROW_SEQUENCE_START) != 0 || !previousMatched;
        previousMatched = matched;
        if (matched && runStart) {
            found = true;
            if (args.json) {
                PutRow(out, object, section, row, true);
            } else {
                out.Put(object.Sections()[section].name).Put(' ');
                out.PutHex(object.AddressOf(section, row.offset)).Put('\n');
            }
        }
        if (ofSource && row.line < *line && row.line != 0 &&
            (!nearest || row.line > nearest->row.line))
            nearest = Place{section, row};
    });
    if (!listed || !out.Flush())
        return kExitFailed;
    if (found)
        return kExitOk;
    std::string position = source + ":" + std::to_string(*line);
    if (column)
        position += ":" + std::to_string(*column);
    if (!nearest) {
        Fail("no code at or before " + position);
    } else {
        const std::string *file = object.FileName(nearest->row.file_index);
        Fail("no code at " + position + "; the nearest earlier position is " +
             (file ? *file : std::string("??")) + ":" + std::to_string(nearest->row.line) + " at " +
             object.Sections()[nearest->section].name + " " +
             Hex(object.AddressOf(nearest->section, nearest->row.offset)));
    }
    return kExitNotFound;
}

int ListFiles(const Arguments &args) {
    if (args.operands.size() != 1)
        return Usage("files takes one object file", "files");
    ObjectLines object;
    if (!OpenObject(object, args.operands[0]))
        return kExitFailed;
    Output out;
    for (uint32_t index = 0; index < object.FileCount(); ++index) {
        const std::string *path = object.FileName(index);
        if (!path) {
            Fail("source file " + std::to_string(index) + " has no name");
            return kExitFailed;
        }
        if (args.json)
            out.Put("{\"index\": ")
                .PutDecimal(index)
                .Put(", \"file\": ")
                .PutJsonString(*path)
                .Put("}\n");
        else
            out.Put(*path).Put('\n');
    }
    return out.Flush() ? kExitOk : kExitFailed;
}

} // namespace

std::optional<uint64_t> ParseAddress(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty())
        return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = unsigned(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = unsigned(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = unsigned(c - 'A' + 10);
        else
            return std::nullopt;
        if (value > (UINT64_MAX - digit) / base)
            return std::nullopt; // more than 64 bits
        value = value * base + digit;
    }
    return value;
}

int RunQuery(const std::string &command, const std::vector<std::string> &args) {
    Arguments parsed;
    std::string fault = ParseArguments(command, args, parsed);
    if (!fault.empty())
        return Usage(fault, command);
    if (command == "lines")
        return ListLines(parsed);
    if (command == "addr")
        return AddressToLine(parsed);
    if (command == "line")
        return LineToAddress(parsed);
    if (command == "files")
        return ListFiles(parsed);
    return Usage("unknown command '" + command + "'", "");
}

} // namespace qdbg
