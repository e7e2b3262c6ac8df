// Detail levels: how QX_TRACE_LEVELS turns into one byte per category.
#include <gtest/gtest.h>

#include <array>

#include "tr/tr_test_util.h"

namespace {

using tr_test::kCategories;
using A = std::array<int, 3>;

TEST(LevelsTest, SpecificationsGiveOneLevelPerCategory) {
    // Defaults, and minimums that win over defaults and explicit levels.
    const tr_category_description_t defaults[3] = {
        {0, "API", 2, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 7, 0}};
    const tr_category_description_t floors[3] = {
        {0, "API", 1, 3}, {1, "Errors", 0, 2}, {2, "Wherever", 900, 0}};
    const tr_category_description_t explicit_floor[3] = {
        {0, "API", 0, 4}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};
    const struct {
        const char *text;
        const char *component;
        const tr_category_description_t *categories;
        A expected;
    } cases[] = {{nullptr, "_SRA", defaults, {2, 0, 7}},
                 {"", "_SRA", defaults, {2, 0, 7}},
                 {nullptr, "_SRA", floors, {3, 2, 255}},
                 {"_SRA:API=0,Errors=0", "_SRA", explicit_floor, {4, 0, 0}},
                 {"_SRA:API=9", "_SRA", explicit_floor, {9, 0, 0}},
                 {"_SRA:API=1,Errors=3", "_SRA", kCategories, {1, 3, 0}},
                 {"_SRA:API=1,Errors=3", "_XYZ", kCategories, {0, 0, 0}},
                 {"_XYZ:*=2;_SRA:Wherever=5", "_SRA", kCategories, {0, 0, 5}},
                 // Names match exactly.
                 {"_SR:API=1", "_SRA", kCategories, {0, 0, 0}},
                 {"_SRAX:API=1", "_SRA", kCategories, {0, 0, 0}},
                 {"_SRA:AP=1,APIs=1,api=1", "_SRA", kCategories, {0, 0, 0}},
                 // A star matches every component or category; later items override.
                 {"*:Errors=2", "_ABC", kCategories, {0, 2, 0}},
                 {"_SRA:*=4", "_SRA", kCategories, {4, 4, 4}},
                 {"_SRA:*=2,API=0", "_SRA", kCategories, {0, 2, 2}},
                 {"_SRA:API=5;*:*=1", "_SRA", kCategories, {1, 1, 1}},
                 {"*:*=1;_SRA:Errors=0", "_SRA", kCategories, {1, 0, 1}},
                 // Malformed items are skipped and the rest applies.
                 {"_SRA:API=x,Errors=2", "_SRA", kCategories, {0, 2, 0}},
                 {"_SRA:API=,Errors=2", "_SRA", kCategories, {0, 2, 0}},
                 {"_SRA:API,Errors=2", "_SRA", kCategories, {0, 2, 0}},
                 {"_SRA:=3,Errors=2", "_SRA", kCategories, {0, 2, 0}},
                 {"_SRA:API=-1,Errors=+2", "_SRA", kCategories, {0, 0, 0}},
                 {"_SRA:API=256,Errors=255", "_SRA", kCategories, {0, 255, 0}},
                 {"_SRA:API=1 2,Errors=0x1", "_SRA", kCategories, {0, 0, 0}},
                 {"_SRA:API=99999999999999999999", "_SRA", kCategories, {0, 0, 0}},
                 {"API=1;:API=2;_SRA API=3;_SRA:Wherever=4", "_SRA", kCategories, {0, 0, 4}},
                 {";;,,:;=;_SRA:,,API=1,,", "_SRA", kCategories, {1, 0, 0}},
                 {" _SRA : API = 1 ,\tErrors=2 ; ", "_SRA", kCategories, {1, 2, 0}}};
    for (const auto &c : cases) {
        qx_uint8_t bytes[3] = {99, 99, 99};
        int traced = tr_i_compute_levels(c.text, c.component, c.categories, 3, bytes);
        EXPECT_EQ(c.expected, (A{bytes[0], bytes[1], bytes[2]})) << (c.text ? c.text : "(unset)");
        EXPECT_EQ(c.expected != (A{0, 0, 0}), traced != 0) << (c.text ? c.text : "(unset)");
    }
}

class RegistrationTest : public tr_test::TraceFixture {};

TEST_F(RegistrationTest, FillsTheCallersBytesAndRereadsThemOnEachRegistration) {
    qx_uint8_t bytes[3] = {9, 9, 9};
    ASSERT_EQ(Register("_SRA", "_SRA:API=1,Errors=2", trace_file_.c_str(), bytes), 0);
    EXPECT_EQ((A{1, 2, 0}), (A{bytes[0], bytes[1], bytes[2]}));
    EXPECT_NE(tr_i_component_traced("_SRA"), 0);
    ASSERT_EQ(Register("_SRA", nullptr, trace_file_.c_str(), bytes), 0);
    EXPECT_EQ((A{0, 0, 0}), (A{bytes[0], bytes[1], bytes[2]}));
    EXPECT_EQ(tr_i_component_traced("_SRA"), 0);
    EXPECT_EQ(tr_i_active.load(), 0);
}

TEST_F(RegistrationTest, RefusesBadArgumentsAndAFullTableWithoutHarm) {
    qx_uint8_t bytes[3];
    const tr_category_description_t unnamed[1] = {{0, nullptr, 0, 0}};
    EXPECT_NE(tr_register_component_1(nullptr, bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("", bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("SIXTEEN_CHARS_XX", bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", nullptr, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", bytes, nullptr, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", bytes, unnamed, 1), 0);
    EXPECT_EQ(tr_i_total_components.load(), 0u);
    EXPECT_EQ(tr_register_component_1("FIFTEEN_CHARS_X", bytes, kCategories, 3), 0);
    EXPECT_EQ(tr_register_component_1("_NON", nullptr, nullptr, 0), 0);

    tr_i_reset_for_testing();
    setenv("QX_TRACE_LEVELS", "*:API=1", 1);
    for (int i = 0; i < TR_I_MAX_COMPONENTS; ++i) {
        std::string name = "C" + std::to_string(i);
        ASSERT_EQ(tr_register_component_1(name.c_str(), bytes, kCategories, 3), 0);
    }
    EXPECT_NE(tr_register_component_1("ONEMORE", bytes, kCategories, 3), 0);
    EXPECT_EQ(tr_register_component_1("C0", bytes, kCategories, 3), 0);  // known ones refresh
    EXPECT_EQ(tr_record_id_1("ONEMORE", 1), 0);
}

}  // namespace
