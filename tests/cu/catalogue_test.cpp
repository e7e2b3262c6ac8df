// Message catalogues: a catalogue found through NLSPATH supplies the text
// (its own wording and order of values), and anything missing falls back to
// the record's default text.  The catalogue is built here with the system's
// gencat from a source written by the test.
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

// Compiles a message source into the catalogue file cat_path with gencat.
bool build_catalogue(const std::string &cat_path, const std::string &source_text) {
    std::string source = cat_path + ".msg";
    std::ofstream msg(source);
    msg << source_text;
    msg.close();
    std::string command = "gencat '" + cat_path + "' '" + source + "'";
    int status = system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        const char *old = getenv("NLSPATH");
        if (old != nullptr) saved_nlspath_ = old;
        if (!build_catalogue(dir_.path() + "/" + kCatalogue,
                             "$quote \"\n"
                             "$set 1\n"
                             "1 \"Catalogue: value %2$d belongs to %1$s.\\n\"\n"
                             "2 \"Catalogue text without values.\"\n"
                             "$set 2\n"
                             "1 \"Second set, %1$s.\"\n")) {
            GTEST_SKIP() << "gencat is not available to build a test catalogue";
        }
        setenv("NLSPATH", (dir_.path() + "/%N").c_str(), 1);
        cu_set_no_error_1();
    }
    void TearDown() override {
        cu_set_no_error_1();
        if (saved_nlspath_) {
            setenv("NLSPATH", saved_nlspath_->c_str(), 1);
        } else {
            unsetenv("NLSPATH");
        }
    }

    cu_test::ScratchDir dir_;
    std::optional<std::string> saved_nlspath_;
};

TEST_F(CatalogueTest, CatalogueTextWinsOverDefaultText) {
    cu_set_error_1(10, nullptr, kCatalogue, 1, 1, "Default: %1$s has %2$d.\n", "table", 7);
    EXPECT_EQ("Catalogue: value 7 belongs to table.\n", current_message());
}

TEST_F(CatalogueTest, SetAndNumberSelectTheMessage) {
    cu_set_error_1(10, nullptr, kCatalogue, 1, 2, "Default two.");
    EXPECT_EQ("Catalogue text without values.", current_message());
    cu_set_error_1(10, nullptr, kCatalogue, 2, 1, "Default %1$s.", "x");
    EXPECT_EQ("Second set, x.", current_message());
}

TEST_F(CatalogueTest, MessageMissingFromCatalogueFallsBackToDefault) {
    cu_set_error_1(10, nullptr, kCatalogue, 1, 99, "Default %1$s.", "used");
    EXPECT_EQ("Default used.", current_message());
    cu_set_error_1(10, nullptr, kCatalogue, 7, 1, "Default set %1$d.", 7);
    EXPECT_EQ("Default set 7.", current_message());
}

TEST_F(CatalogueTest, MissingCatalogueFallsBackToDefault) {
    cu_set_error_1(10, nullptr, "qx_cu_no_such.cat", 1, 1, "Default %1$s.", "kept");
    EXPECT_EQ("Default kept.", current_message());
}

TEST_F(CatalogueTest, RecordWithoutCatalogueUsesDefault) {
    cu_set_error_1(10, nullptr, nullptr, 1, 1, "Default only.");
    EXPECT_EQ("Default only.", current_message());
}

TEST_F(CatalogueTest, CatalogueFoundOnlyThroughNlspath) {
    unsetenv("NLSPATH");
    cu_set_error_1(10, nullptr, kCatalogue, 1, 2, "Default without path.");
    EXPECT_EQ("Default without path.", current_message());
}

TEST_F(CatalogueTest, CatalogueTextRefersToValueTheDefaultNeverRecorded) {
    // The default text records one value; the catalogue's text wants two.
    cu_set_error_1(10, nullptr, kCatalogue, 1, 1, "Default %1$s.", "only");
    EXPECT_EQ("Catalogue: value ? belongs to only.\n", current_message());
}

TEST_F(CatalogueTest, LookupLeavesErrnoAsItWas) {
    cu_set_error_1(10, nullptr, "qx_cu_no_such.cat", 1, 1, "Default.");
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    errno = 1234;
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(rec, &msg));
    EXPECT_EQ(1234, errno);
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);
}

// Without NLSPATH the installed tree is searched: the caller's message
// locale first, then C.
class InstalledCatalogueTest : public CatalogueTest {
  protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        if (IsSkipped()) return;
        unsetenv("NLSPATH");
        saved_datadir_ = cu_i::g_install_datadir;
        datadir_ = dir_.path() + "/share";
        cu_i::g_install_datadir = datadir_.c_str();
        std::filesystem::create_directories(datadir_ + "/qx/nls/C");
        std::filesystem::create_directories(datadir_ + "/qx/nls/C.UTF-8");
        ASSERT_TRUE(build_catalogue(datadir_ + "/qx/nls/C/" + kCatalogue,
                                    "$set 1\n1 Installed C text %1$s.\n"));
    }
    void TearDown() override {
        if (saved_datadir_ != nullptr) cu_i::g_install_datadir = saved_datadir_;
        CatalogueTest::TearDown();
    }

    std::string datadir_;
    const char *saved_datadir_ = nullptr;
};

TEST_F(InstalledCatalogueTest, CLocaleCatalogueIsTheLastResort) {
    cu_set_error_1(10, nullptr, kCatalogue, 1, 1, "Default %1$s.", "v");
    EXPECT_EQ("Installed C text v.", current_message());
}

TEST_F(InstalledCatalogueTest, CallersMessageLocaleComesBeforeC) {
    ASSERT_TRUE(build_catalogue(datadir_ + "/qx/nls/C.UTF-8/" + kCatalogue,
                                "$set 1\n1 Installed UTF-8 text %1$s.\n"));
    cu_test::ThreadLocale utf8("C.UTF-8");
    if (!utf8.loaded()) GTEST_SKIP() << "the C.UTF-8 locale is not installed";
    cu_set_error_1(10, nullptr, kCatalogue, 1, 1, "Default %1$s.", "v");
    EXPECT_EQ("Installed UTF-8 text v.", current_message());
}

TEST_F(InstalledCatalogueTest, NlspathComesBeforeTheInstalledTree) {
    setenv("NLSPATH", (dir_.path() + "/%N").c_str(), 1);
    cu_set_error_1(10, nullptr, kCatalogue, 1, 2, "Default.");
    EXPECT_EQ("Catalogue text without values.", current_message());
}

}  // namespace
