// The application metadata store: versions, the sorted index, copies, failures.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

namespace {

struct View {
    qx_int32_t rc;
    std::string bytes;
    bool operator==(const View &) const = default;
};
struct Element {
    qx_uint32_t type;
    View applied, committed;
    bool shared;  // one block serves both versions
    bool operator==(const Element &) const = default;
};

class ApplicationMetadataTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, sr_i_allocate_application_metadata_buffer(1, &p_)); }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_free_application_metadata(p_);
    }
    qx_int32_t set(qx_uint32_t type, const std::string &b) {
        return sr_i_set_application_metadata(p_, type, static_cast<qx_uint32_t>(b.size()),
                                             const_cast<char *>(b.data()));
    }
    qx_int32_t add(qx_uint32_t type, const std::string &b) {
        return sr_i_add_application_metadata_element(p_, type, static_cast<qx_uint32_t>(b.size()),
                                                     const_cast<char *>(b.data()));
    }
    View get(qx_uint32_t type, qx_uint32_t visible) {
        qx_uint32_t length = 0;
        char *p_data = nullptr;
        qx_int32_t rc = sr_i_get_application_metadata_element(p_, type, visible, &length, &p_data);
        View view{rc, rc == 0 ? std::string(p_data, length) : std::string()};
        free(p_data);
        return view;
    }
    std::vector<Element> state() {
        std::vector<Element> elements;
        for (qx_uint32_t i = 0; i < p_->total_elements; ++i) {
            const auto &e = p_->p_index[i];
            elements.push_back(
                {e.type, get(e.type, 1), get(e.type, 0), e.p_applied == e.p_committed});
        }
        cu_set_no_error_1();
        return elements;
    }
    void commit() { ASSERT_EQ(0, sr_i_commit_application_metadata_buffer_updates(p_)); }
    // Every allocation failing in turn: 12 and the store unchanged.
    template <typename Attempt>
    void EachFailureLeavesTheStore(Attempt attempt) {
        const std::vector<Element> before = state();
        qxtest::EachAllocationFailure(attempt, [&] { EXPECT_EQ(before, state()); });
    }
    sr_i_application_metadata_t *p_ = nullptr;
};

qx_int32_t SetV(sr_i_application_metadata_t *p_store, qx_uint32_t count, ...) {
    va_list ap;
    va_start(ap, count);
    qx_int32_t rc = sr_i_set_application_metadata_v(p_store, count, ap);
    va_end(ap);
    return rc;
}

TEST_F(ApplicationMetadataTest, VersionsThroughSetDeleteCommitAndAbort) {
    ASSERT_EQ(0, set(4, "first"));
    ASSERT_EQ(0, set(4, "second"));  // the first block is freed
    EXPECT_EQ((View{202, ""}), get(4, 0));
    commit();
    EXPECT_EQ((std::vector<Element>{{4, {0, "second"}, {0, "second"}, true}}), state());
    ASSERT_EQ(0, set(4, "new"));
    ASSERT_EQ(0, set(4, "newer"));
    ASSERT_EQ(0, set(1, "a"));
    ASSERT_EQ(0, set(2, "b"));
    EXPECT_EQ(Element({4, {0, "newer"}, {0, "second"}, false}), state()[2]);
    commit();
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_, 2));
    EXPECT_EQ(0, sr_i_delete_application_metadata_element(p_, 2));  // nothing left to do
    EXPECT_EQ((View{204, ""}), get(2, 1));
    EXPECT_EQ((View{0, "b"}), get(2, 0));
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_, 1));
    ASSERT_EQ(0, set(1, "after"));  // deleted, then set again: kept
    commit();
    EXPECT_EQ((std::vector<Element>{{1, {0, "after"}, {0, "after"}, true},
                                    {4, {0, "newer"}, {0, "newer"}, true}}),
              state());
    EXPECT_EQ(202, sr_i_delete_application_metadata_element(p_, 2));
    // Abort drops added elements and restores changed and deleted ones.
    const std::vector<Element> committed = state();
    ASSERT_EQ(0, set(4, "changed"));
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_, 1));
    ASSERT_EQ(0, set(0, "added"));
    ASSERT_EQ(0, SetV(p_, 2, 9u, 3u, "ten", 3u, 5u, "three"));
    EXPECT_EQ((View{0, "three"}), get(3, 1));
    ASSERT_EQ(0, sr_i_abort_application_metadata_buffer_updates(p_));
    EXPECT_EQ(committed, state());
}

TEST_F(ApplicationMetadataTest, IndexStaysSortedGrowsAndCopies) {
    sr_i_free_application_metadata(p_);
    ASSERT_EQ(0, sr_i_allocate_application_metadata_buffer(0, &p_));  // no room at first
    for (qx_uint32_t type : {50u, 10u, 40u, 20u, 30u, 0u, 60u})
        ASSERT_EQ(0, add(type, std::to_string(type)));
    for (qx_uint32_t i = 0; i < 7; ++i) EXPECT_EQ(i * 10, p_->p_index[i].type);
    EXPECT_EQ((View{0, "40"}), get(40, 1));
    EXPECT_EQ((View{202, ""}), get(35, 1));
    EXPECT_EQ((View{202, ""}), get(70, 1));
    EXPECT_EQ(108, add(30, "y"));
    EXPECT_EQ(202, sr_i_set_application_metadata_element(p_, 5, 1, const_cast<char *>("z")));
    ASSERT_EQ(0, sr_i_set_application_metadata(p_, 5, 0, nullptr));  // zero length
    EXPECT_EQ((View{0, ""}), get(5, 1));
    qx_uint32_t length = 9;
    char *p_data = nullptr;
    EXPECT_EQ(202, sr_i_get_application_metadata(p_, 0, 5, &length, &p_data));
    ASSERT_EQ(0, set(0, std::string("\0\1z", 3)));
    qx_binary_t *p_binary = nullptr;
    ASSERT_EQ(0, sr_i_get_application_metadata_element_binary(p_, 0, 1, &p_binary));
    EXPECT_EQ(std::string("\0\1z", 3),
              std::string(reinterpret_cast<char *>(p_binary->data), p_binary->length));
    free(p_binary);
    EXPECT_EQ(202, sr_i_get_application_metadata_element_binary(p_, 5, 0, &p_binary));
    commit();
    sr_i_application_metadata_t *p_copy = nullptr;
    ASSERT_EQ(0, sr_i_duplicate_application_metadata_buffer(p_, &p_copy));
    const std::vector<Element> original = state();
    std::swap(p_, p_copy);
    EXPECT_EQ(original, state());
    sr_i_free_application_metadata(p_copy);
}

TEST_F(ApplicationMetadataTest, EveryAllocationFailureLeavesTheStoreAsItWas) {
    ASSERT_EQ(0, set(1, "one"));
    ASSERT_EQ(0, set(2, "two"));
    commit();
    ASSERT_EQ(0, set(2, "two changed"));
    ASSERT_EQ(p_->total_elements, p_->max_elements);
    EachFailureLeavesTheStore([&] { return set(2, "two again"); });
    EachFailureLeavesTheStore([&] { return set(1, "one changed"); });
    EachFailureLeavesTheStore([&] { return add(0, "zero"); });  // grows the index
    EachFailureLeavesTheStore([&] { return add(3, "three"); });
    sr_i_alloc_fail_after(0);
    EXPECT_EQ((View{12, ""}), get(1, 1));
    qx_binary_t *p_binary = nullptr;
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(12, sr_i_get_application_metadata_element_binary(p_, 1, 1, &p_binary));
    commit();
    EachFailureLeavesTheStore([&] {
        sr_i_application_metadata_t *p_copy = nullptr;
        qx_int32_t rc = sr_i_duplicate_application_metadata_buffer(p_, &p_copy);
        EXPECT_EQ(rc == 0, p_copy != nullptr);
        sr_i_free_application_metadata(p_copy);
        return rc;
    });
}

}  // namespace
