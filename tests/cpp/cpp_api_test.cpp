// The C++ header: typed values, results with messages, transactions, rows and selections.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "qx_sr.hpp"

namespace {

using qx::sr::Bytes;
using qx::sr::Mode;
using qx::sr::Table;
using qx::sr::Tree;
using qx::sr::View;

class CppApiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "qx_cpp_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        auto tree = Tree::open();
        ASSERT_TRUE(tree) << tree.message();
        tree_ = std::move(tree).value();
        ASSERT_TRUE(tree_.mount("/t", dir_)) << "mount";
    }
    void TearDown() override {
        (void)tree_.close();
        std::filesystem::remove_all(dir_);
    }
    Table people(Mode mode = Mode::write) {
        auto table = tree_.create_table("/t/people",
                                        {{"id", QX_INT32, SR_PRIMARY_KEY},
                                         {"name", QX_CHAR_PTR, SR_STANDARD, "nobody"},
                                         {"age", QX_UINT32},
                                         {"big", QX_INT64},
                                         {"huge", QX_UINT64},
                                         {"ratio", QX_FLOAT32},
                                         {"score", QX_FLOAT64},
                                         {"photo", QX_BINARY_PTR},
                                         {"tags", QX_CHAR_PTR_ARRAY},
                                         {"marks", QX_INT32_ARRAY},
                                         {"weights", QX_FLOAT64_ARRAY}},
                                        mode);
        EXPECT_TRUE(table) << table.message();
        return table ? std::move(table).value() : Table();
    }
    std::string dir_;
    Tree tree_;
};

TEST_F(CppApiTest, WritesReadsAndIteratesEveryTypeAndFailuresCarryCodeAndMessage) {
    Table t = people();
    ASSERT_TRUE(t.add({{"id", 1},
                       {"name", "Ada"},
                       {"age", std::uint32_t{36}},
                       {"big", std::int64_t{-5000000000}},
                       {"huge", std::uint64_t{18446744073709551615u}},
                       {"ratio", 0.5f},
                       {"score", 2.25},
                       {"photo", Bytes{0xbe, 0xef, 0x00}},
                       {"tags", std::vector<std::string>{"math", "", "engines"}},
                       {"marks", std::vector<std::int32_t>{3, -4}},
                       {"weights", std::vector<double>{1.5}}}));
    ASSERT_TRUE(t.add({{"id", 2}}));
    EXPECT_EQ(*t.get<std::string>(1, "name"), "Ada");
    EXPECT_EQ(*t.get<std::string>(2, "name"), "nobody");
    EXPECT_EQ(*t.get<std::uint32_t>(1, "age"), 36u);
    EXPECT_EQ(*t.get<std::int64_t>(1, "big"), -5000000000);
    EXPECT_EQ(*t.get<std::uint64_t>(1, "huge"), 18446744073709551615u);
    EXPECT_EQ(*t.get<float>(1, "ratio"), 0.5f);
    EXPECT_EQ(*t.get<double>(1, "score"), 2.25);
    EXPECT_EQ(*t.get<Bytes>(1, "photo"), (Bytes{0xbe, 0xef, 0x00}));
    EXPECT_EQ(*t.get<std::vector<std::string>>(1, "tags"),
              (std::vector<std::string>{"math", "", "engines"}));
    EXPECT_EQ(*t.get<std::vector<std::int32_t>>(1, "marks"), (std::vector<std::int32_t>{3, -4}));
    EXPECT_EQ(*t.get<std::vector<double>>(1, "weights"), std::vector<double>{1.5});
    ASSERT_TRUE(t.set(1, "name", "Ada Lovelace"));
    EXPECT_EQ(t.get<std::string>(1, "name").value_or(""), "Ada Lovelace");
    EXPECT_EQ(*t.size(), 2u);
    EXPECT_EQ(t.columns()->size(), 11u);
    // Failures carry the code and the library's message.
    struct Case {
        qx::sr::Result<std::int32_t> result;
        qx_int32_t code;
        const char *text;
    };
    Case cases[] = {{t.get<std::int32_t>(9, "id"), SR_E_NO_ROW_FOR_KEY, "2605-202"},
                    {t.get<std::int32_t>(1, "name"), SR_E_INVALID_COLUMN, "type"},
                    {t.get<std::int32_t>(1, "nosuch"), SR_E_INVALID_COLUMN, "nosuch"}};
    for (const Case &c : cases) {
        EXPECT_FALSE(c.result);
        EXPECT_EQ(c.result.code(), c.code);
        EXPECT_NE(c.result.message().find(c.text), std::string_view::npos) << c.result.message();
    }
    // Values of another type than the column's are refused before reaching the library.
    qx::sr::Status wrong[] = {
        t.add({{"id", 2}, {"name", 5}}), t.set(1, "name", 5), t.set("1", "name", "x"),
        t.add({{"id", std::uint32_t{3}}}),
        tree_.create_table("/t/bad", {{"id", QX_CHAR_PTR, SR_PRIMARY_KEY, 0}}).error()};
    for (const qx::sr::Status &s : wrong) EXPECT_EQ(s.code(), SR_E_INVALID_COLUMN) << s.message();
    EXPECT_EQ(*t.size(), 2u);
    EXPECT_EQ(t.add({{"id", 1}}).code(), SR_E_DUPLICATE_KEY);
    auto missing = tree_.open_table("/t/nosuch");
    EXPECT_EQ(missing.code(), SR_E_NO_TABLE);
    // Rows and selections iterate.
    for (std::int32_t id = 3; id <= 6; ++id) {
        ASSERT_TRUE(t.add({{"id", id}, {"age", static_cast<std::uint32_t>(id * 10)}}));
    }
    ASSERT_TRUE(t.erase("id == 2"));
    std::vector<std::int32_t> ids;
    for (qx::sr::Row row : t.rows()) ids.push_back(*row.get<std::int32_t>("id"));
    std::sort(ids.begin(), ids.end());  // a delete may reorder packed rows
    EXPECT_EQ(ids, (std::vector<std::int32_t>{1, 3, 4, 5, 6}));
    auto selection = t.select("age >= 40");
    ASSERT_TRUE(selection) << selection.message();
    std::vector<std::uint32_t> ages;
    for (qx::sr::Row row : *selection) ages.push_back(*row.get<std::uint32_t>("age"));
    EXPECT_EQ(ages, (std::vector<std::uint32_t>{40, 50, 60}));
    EXPECT_EQ(t.select("nosuch > 1").code(), SR_E_LIBRARY_CALL);
    EXPECT_EQ(t.select("")->size(), 5u);
    Table moved = std::move(t);  // one owner closes the handle, once
    EXPECT_EQ(*moved.size(), 5u);
}

TEST_F(CppApiTest, TransactionsAbortUnlessCommitted) {
    Table t = people(Mode::explicit_control);
    {
        auto tx = t.transaction();
        ASSERT_TRUE(t.add({{"id", 1}}));
        ASSERT_TRUE(t.add({{"id", 2}}));
    }  // leaves without commit: both rows go
    EXPECT_EQ(t.get<std::int32_t>(1, "id", View::uncommitted).code(), SR_E_NO_ROW_FOR_KEY);
    {
        auto tx = t.transaction();
        ASSERT_TRUE(t.add({{"id", 3}, {"name", "kept"}}));
        ASSERT_TRUE(tx.commit());
        EXPECT_FALSE(tx.commit());  // a transaction ends once
    }
    ASSERT_TRUE(t.close());
    // A fresh tree reads the table file: only the committed row is there.
    auto other = Tree::open();
    ASSERT_TRUE(other);
    ASSERT_TRUE(other->mount("/t", dir_));
    auto again = other->open_table("/t/people", Mode::read);
    ASSERT_TRUE(again) << again.message();
    EXPECT_EQ(*again->size(), 1u);
    EXPECT_EQ(*again->get<std::string>(3, "name"), "kept");
}

}  // namespace
