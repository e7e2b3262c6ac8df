// Detail levels: how QX_TRACE_LEVELS turns into one byte per category.
#include <gtest/gtest.h>

#include <array>

#include "tr/tr_test_util.h"

namespace {

using tr_test::kCategories;

std::array<int, 3> Levels(const char *levels_text, const char *component = "_SRA",
                          const tr_category_description_t *categories = kCategories) {
    qx_uint8_t bytes[3] = {99, 99, 99};
    tr_i_compute_levels(levels_text, component, categories, 3, bytes);
    return {bytes[0], bytes[1], bytes[2]};
}

using A = std::array<int, 3>;

TEST(LevelsTest, UnsetSpecificationGivesTheDefaults) {
    const tr_category_description_t categories[3] = {
        {0, "API", 2, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 7, 0}};
    EXPECT_EQ(Levels(nullptr, "_SRA", categories), (A{2, 0, 7}));
    EXPECT_EQ(Levels("", "_SRA", categories), (A{2, 0, 7}));
}

TEST(LevelsTest, DefaultNeverBelowMinimum) {
    const tr_category_description_t categories[3] = {
        {0, "API", 1, 3}, {1, "Errors", 0, 2}, {2, "Wherever", 900, 0}};
    EXPECT_EQ(Levels(nullptr, "_SRA", categories), (A{3, 2, 255}));
}

TEST(LevelsTest, ExplicitLevelNeverBelowMinimum) {
    const tr_category_description_t categories[3] = {
        {0, "API", 0, 4}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};
    EXPECT_EQ(Levels("_SRA:API=0,Errors=0", "_SRA", categories), (A{4, 0, 0}));
    EXPECT_EQ(Levels("_SRA:API=9", "_SRA", categories), (A{9, 0, 0}));
}

TEST(LevelsTest, SetsOnlyTheNamedComponentAndCategories) {
    EXPECT_EQ(Levels("_SRA:API=1,Errors=3"), (A{1, 3, 0}));
    EXPECT_EQ(Levels("_SRA:API=1,Errors=3", "_XYZ"), (A{0, 0, 0}));
    EXPECT_EQ(Levels("_XYZ:*=2;_SRA:Wherever=5"), (A{0, 0, 5}));
}

TEST(LevelsTest, NamesMatchExactly) {
    EXPECT_EQ(Levels("_SR:API=1"), (A{0, 0, 0}));
    EXPECT_EQ(Levels("_SRAX:API=1"), (A{0, 0, 0}));
    EXPECT_EQ(Levels("_SRA:AP=1,APIs=1,api=1"), (A{0, 0, 0}));
}

TEST(LevelsTest, StarMatchesEveryComponentOrCategory) {
    EXPECT_EQ(Levels("*:Errors=2"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("*:Errors=2", "_ABC"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("_SRA:*=4"), (A{4, 4, 4}));
    EXPECT_EQ(Levels("*:*=1", "_ANY"), (A{1, 1, 1}));
}

TEST(LevelsTest, LaterItemsOverrideEarlierOnes) {
    EXPECT_EQ(Levels("_SRA:*=2,API=0"), (A{0, 2, 2}));
    EXPECT_EQ(Levels("_SRA:API=5;*:*=1"), (A{1, 1, 1}));
    EXPECT_EQ(Levels("*:*=1;_SRA:Errors=0"), (A{1, 0, 1}));
}

TEST(LevelsTest, MalformedItemsAreSkippedAndTheRestApplies) {
    EXPECT_EQ(Levels("_SRA:API=x,Errors=2"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("_SRA:API=,Errors=2"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("_SRA:API,Errors=2"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("_SRA:=3,Errors=2"), (A{0, 2, 0}));
    EXPECT_EQ(Levels("_SRA:API=-1,Errors=+2"), (A{0, 0, 0}));
    EXPECT_EQ(Levels("_SRA:API=256,Errors=255"), (A{0, 255, 0}));
    EXPECT_EQ(Levels("_SRA:API=1 2,Errors=0x1"), (A{0, 0, 0}));
    EXPECT_EQ(Levels("_SRA:API=99999999999999999999"), (A{0, 0, 0}));
    // Entries without a component, or without the colon, are skipped whole.
    EXPECT_EQ(Levels("API=1;:API=2;_SRA API=3;_SRA:Wherever=4"), (A{0, 0, 4}));
    EXPECT_EQ(Levels(";;,,:;=;_SRA:,,API=1,,"), (A{1, 0, 0}));
}

TEST(LevelsTest, BlanksAroundNamesAndLevelsAreIgnored) {
    EXPECT_EQ(Levels(" _SRA : API = 1 ,\tErrors=2 ; "), (A{1, 2, 0}));
}

TEST(LevelsTest, ReportsWhetherAnyCategoryIsTraced) {
    qx_uint8_t bytes[3];
    EXPECT_EQ(tr_i_compute_levels("_SRA:API=0", "_SRA", kCategories, 3, bytes), 0);
    EXPECT_EQ(tr_i_compute_levels("_SRA:Wherever=1", "_SRA", kCategories, 3, bytes), 1);
}

class RegistrationTest : public tr_test::TraceFixture {};

TEST_F(RegistrationTest, FillsTheCallersBytesFromTheEnvironment) {
    qx_uint8_t bytes[3] = {9, 9, 9};
    ASSERT_EQ(Register("_SRA", "_SRA:API=1,Errors=2", trace_file_.c_str(), bytes), 0);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[1], 2);
    EXPECT_EQ(bytes[2], 0);
}

TEST_F(RegistrationTest, RegisteringAgainRereadsTheLevels) {
    qx_uint8_t bytes[3];
    ASSERT_EQ(Register("_SRA", "_SRA:*=3", trace_file_.c_str(), bytes), 0);
    EXPECT_EQ(bytes[1], 3);
    EXPECT_NE(tr_i_component_traced("_SRA"), 0);
    ASSERT_EQ(Register("_SRA", nullptr, trace_file_.c_str(), bytes), 0);
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(tr_i_component_traced("_SRA"), 0);
    EXPECT_EQ(tr_i_active.load(), 0);
}

TEST_F(RegistrationTest, RefusesBadArguments) {
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
}

TEST_F(RegistrationTest, TableOfComponentsFullIsRefusedWithoutHarm) {
    qx_uint8_t bytes[3];
    setenv("QX_TRACE_LEVELS", "*:API=1", 1);
    for (int i = 0; i < TR_I_MAX_COMPONENTS; ++i) {
        std::string name = "C" + std::to_string(i);
        ASSERT_EQ(tr_register_component_1(name.c_str(), bytes, kCategories, 3), 0);
    }
    EXPECT_NE(tr_register_component_1("ONEMORE", bytes, kCategories, 3), 0);
    // Components already known can still refresh.
    EXPECT_EQ(tr_register_component_1("C0", bytes, kCategories, 3), 0);
    EXPECT_EQ(tr_record_id_1("ONEMORE", 1), 0);
}

}  // namespace
