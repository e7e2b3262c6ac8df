// Message catalogues: a catalogue found through NLSPATH, or else in the
// installed tree (the caller's message locale, then C), supplies the text;
// anything missing falls back to the record's default text.  Catalogues are
// built here with the system's gencat.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "cu_i.h"
#include "cu_test_util.h"
#include "qx_cu.h"

namespace {

using cu_test::current_message;

constexpr const char *kCatalogue = "qx_cu_test.cat";

bool build_catalogue(const std::string &cat_path, const std::string &source_text) {
    std::ofstream(cat_path + ".msg") << source_text;
    std::string command = "gencat '" + cat_path + "' '" + cat_path + ".msg'";
    int status = system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename... Args>
std::string message(const char *catalogue, int set, int number, const char *text, Args... args) {
    cu_set_error_1(10, nullptr, catalogue, set, number, text, args...);
    return current_message();
}

class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        if (const char *old = getenv("NLSPATH")) saved_nlspath_ = old;
        saved_datadir_ = cu_i::g_install_datadir;
        if (!build_catalogue(dir_.path() + "/" + kCatalogue,
                             "$quote \"\n$set 1\n"
                             "1 \"Catalogue: value %2$d belongs to %1$s.\\n\"\n"
                             "2 \"Catalogue text without values.\"\n"
                             "$set 2\n1 \"Second set, %1$s.\"\n")) {
            GTEST_SKIP() << "gencat is not available to build a test catalogue";
        }
        setenv("NLSPATH", (dir_.path() + "/%N").c_str(), 1);
        cu_set_no_error_1();
    }
    void TearDown() override {
        cu_set_no_error_1();
        cu_i::g_install_datadir = saved_datadir_;
        if (saved_nlspath_) {
            setenv("NLSPATH", saved_nlspath_->c_str(), 1);
        } else {
            unsetenv("NLSPATH");
        }
    }

    cu_test::ScratchDir dir_;
    std::optional<std::string> saved_nlspath_;
    const char *saved_datadir_ = nullptr;
};

TEST_F(CatalogueTest, CatalogueTextWinsAndAnythingMissingFallsBackToTheDefault) {
    EXPECT_EQ("Catalogue: value 7 belongs to table.\n",
              message(kCatalogue, 1, 1, "Default: %1$s has %2$d.\n", "table", 7));
    EXPECT_EQ("Catalogue text without values.", message(kCatalogue, 1, 2, "Default two."));
    EXPECT_EQ("Second set, x.", message(kCatalogue, 2, 1, "Default %1$s.", "x"));
    EXPECT_EQ("Default used.", message(kCatalogue, 1, 99, "Default %1$s.", "used"));
    EXPECT_EQ("Default set 7.", message(kCatalogue, 7, 1, "Default set %1$d.", 7));
    EXPECT_EQ("Default kept.", message("qx_cu_no_such.cat", 1, 1, "Default %1$s.", "kept"));
    EXPECT_EQ("Default only.", message(nullptr, 1, 1, "Default only."));
    // The default text records one value; the catalogue's text wants two.
    EXPECT_EQ("Catalogue: value ? belongs to only.\n",
              message(kCatalogue, 1, 1, "Default %1$s.", "only"));

    cu_set_error_1(10, nullptr, "qx_cu_no_such.cat", 1, 1, "Default.");
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    errno = 1234;
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(rec, &msg));
    EXPECT_EQ(1234, errno);  // the lookup leaves errno as it was
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);
}

TEST_F(CatalogueTest, WithoutNlspathTheInstalledTreeIsSearchedLocaleFirstThenC) {
    const std::string datadir = dir_.path() + "/share";
    std::filesystem::create_directories(datadir + "/qx/nls/C");
    std::filesystem::create_directories(datadir + "/qx/nls/C.UTF-8");
    ASSERT_TRUE(
        build_catalogue(datadir + "/qx/nls/C/" + kCatalogue, "$set 1\n1 Installed C text %1$s.\n"));
    cu_i::g_install_datadir = datadir.c_str();
    // NLSPATH comes before the installed tree.
    EXPECT_EQ("Catalogue text without values.", message(kCatalogue, 1, 2, "Default."));
    unsetenv("NLSPATH");
    EXPECT_EQ("Default without path.", message(kCatalogue, 1, 2, "Default without path."));
    EXPECT_EQ("Installed C text v.", message(kCatalogue, 1, 1, "Default %1$s.", "v"));
    ASSERT_TRUE(build_catalogue(datadir + "/qx/nls/C.UTF-8/" + kCatalogue,
                                "$set 1\n1 Installed UTF-8 text %1$s.\n"));
    cu_test::ThreadLocale utf8("C.UTF-8");
    if (!utf8.loaded()) GTEST_SKIP() << "the C.UTF-8 locale is not installed";
    EXPECT_EQ("Installed UTF-8 text v.", message(kCatalogue, 1, 1, "Default %1$s.", "v"));
}

}  // namespace
