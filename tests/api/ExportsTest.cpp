// Each shared library exports its C API and nothing else.
#include "support/Support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

namespace {

struct ExportCase {
    const char *name;
    const char *library;                // relative to the build directory
    bool (*isApi)(const std::string &); // names that belong to the C API
    const char *expected;               // the API's functions, sorted, one space apart
};

bool IsQuilletApi(const std::string &name) {
    return name.rfind("Dbg_", 0) == 0 || name.rfind("DbgLine_", 0) == 0;
}

bool IsBrixApi(const std::string &name) {
    return name.rfind("_brx_", 0) == 0 || name.rfind("_wcbrx_", 0) == 0;
}

const ExportCase kLibraries[] = {
    {"quillet", "src/libquillet.so", IsQuilletApi,
     "DbgLine_create_source DbgLine_find_function DbgLine_find_row "
     "DbgLine_get_inst_info_by_offset DbgLine_get_inst_info_by_source DbgLine_get_row_count "
     "DbgLine_get_rows DbgLine_get_source_file_name DbgLine_get_source_files_number "
     "DbgLine_open_line_section DbgLine_open_object_and_source_file Dbg_add_object_prop "
     "Dbg_base_type Dbg_close_current_scope Dbg_create_line Dbg_create_object Dbg_emit "
     "Dbg_finish Dbg_get_current_scope Dbg_init Dbg_open_module_scope Dbg_open_procedure_scope "
     "Dbg_open_section_scope Dbg_procedure_type Dbg_set_check_handler Dbg_set_current_scope"},
    {"brix", "brix/libbrix.so", IsBrixApi,
     "_brx_close_file _brx_create_object _brx_get_keyed _brx_new_file _brx_open_file "
     "_brx_set_value _brx_write_file _wcbrx_get_keyed"},
};

class Exports : public ::testing::TestWithParam<ExportCase> {};

TEST_P(Exports, OnlyTheCApiIsExported) {
    const ExportCase &c = GetParam();
    std::string library = std::string(QUILLET_BINARY_DIR) + "/" + c.library;
    qtest::CommandResult r = qtest::RunCommand("nm -D --defined-only '" + library + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    std::regex symbolLine(R"(^[0-9a-f]+\s+(\w)\s+(\S+)$)");
    std::vector<std::string> functions, unexpected;
    for (const std::string &line : qtest::SplitLines(r.output)) {
        std::smatch m;
        if (!std::regex_match(line, m, symbolLine))
            continue;
        if (m[1].str() == "T" && c.isApi(m[2].str()))
            functions.push_back(m[2].str());
        else
            unexpected.push_back(line);
    }
    EXPECT_TRUE(unexpected.empty())
        << unexpected.size()
        << " other symbols, first: " << (unexpected.empty() ? "" : unexpected.front());
    std::sort(functions.begin(), functions.end());
    std::string exported;
    for (const std::string &f : functions)
        exported += (exported.empty() ? "" : " ") + f;
    EXPECT_EQ(exported, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Libraries, Exports, ::testing::ValuesIn(kLibraries),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
