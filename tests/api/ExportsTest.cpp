// The shared library exports the C API and nothing else.
#include "support/Support.h"

#include <gtest/gtest.h>

#include <regex>

TEST(Exports, OnlyTheCApiIsExported) {
    std::string library = std::string(QUILLET_BINARY_DIR) + "/src/libquillet.so";
    qtest::CommandResult r = qtest::RunCommand("nm -D --defined-only '" + library + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    std::regex symbolLine(R"(^[0-9a-f]+\s+(\w)\s+(\S+)$)");
    std::vector<std::string> functions, unexpected;
    for (const std::string &line : qtest::SplitLines(r.output)) {
        std::smatch m;
        if (!std::regex_match(line, m, symbolLine))
            continue;
        std::string name = m[2].str();
        bool api = name.rfind("Dbg_", 0) == 0 || name.rfind("DbgLine_", 0) == 0;
        if (api && m[1].str() == "T")
            functions.push_back(name);
        else
            unexpected.push_back(line);
    }
    EXPECT_TRUE(unexpected.empty())
        << unexpected.size() << " other symbols, first: " << unexpected.front();
    std::vector<std::string> expected = {"DbgLine_create_source",
                                         "DbgLine_get_inst_info_by_offset",
                                         "DbgLine_get_inst_info_by_source",
                                         "DbgLine_get_source_file_name",
                                         "DbgLine_get_source_files_number",
                                         "DbgLine_open_line_section",
                                         "DbgLine_open_object_and_source_file",
                                         "Dbg_add_object_prop",
                                         "Dbg_base_type",
                                         "Dbg_close_current_scope",
                                         "Dbg_create_line",
                                         "Dbg_create_object",
                                         "Dbg_emit",
                                         "Dbg_finish",
                                         "Dbg_get_current_scope",
                                         "Dbg_init",
                                         "Dbg_open_module_scope",
                                         "Dbg_open_procedure_scope",
                                         "Dbg_open_section_scope",
                                         "Dbg_procedure_type",
                                         "Dbg_set_check_handler",
                                         "Dbg_set_current_scope"};
    std::sort(functions.begin(), functions.end());
    EXPECT_EQ(functions, expected);
}

TEST(Exports, OnlyTheObjectFileApiLeavesBrix) {
    std::string library = std::string(QUILLET_BINARY_DIR) + "/brix/libbrix.so";
    qtest::CommandResult r = qtest::RunCommand("nm -D --defined-only '" + library + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    std::regex symbolLine(R"(^[0-9a-f]+\s+(\w)\s+(\S+)$)");
    std::vector<std::string> functions, unexpected;
    for (const std::string &line : qtest::SplitLines(r.output)) {
        std::smatch m;
        if (!std::regex_match(line, m, symbolLine))
            continue;
        if (m[1].str() == "T" && m[2].str().find("brx_") != std::string::npos)
            functions.push_back(m[2].str());
        else
            unexpected.push_back(line);
    }
    EXPECT_TRUE(unexpected.empty())
        << unexpected.size()
        << " other symbols, first: " << (unexpected.empty() ? "" : unexpected.front());
    std::sort(functions.begin(), functions.end());
    EXPECT_EQ(functions,
              (std::vector<std::string>{"_brx_close_file", "_brx_create_object", "_brx_get_keyed",
                                        "_brx_new_file", "_brx_open_file", "_brx_set_value",
                                        "_brx_write_file", "_wcbrx_get_keyed"}));
}
