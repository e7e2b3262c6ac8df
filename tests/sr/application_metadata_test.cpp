// The application metadata store: the set/delete/commit/abort cycle with
// shared blocks, the two views, the sorted index, duplication, and what every
// allocation failure leaves behind.  Run under AddressSanitizer, a block
// freed twice or never freed fails these tests.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

// What a reader sees of an element in one view: its bytes, or the code.
struct View {
    qx_int32_t rc;
    std::string bytes;
    bool operator==(const View &) const = default;
};

// Everything observable about a store.
struct Element {
    qx_uint32_t type;
    View applied, committed;
    bool shared;  // one block serves both versions
    bool operator==(const Element &) const = default;
};

class ApplicationMetadataTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, sr_i_allocate_application_metadata_buffer(1, &p_store_)); }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_free_application_metadata(p_store_);
    }
    qx_int32_t set(qx_uint32_t type, const std::string &bytes) {
        return sr_i_set_application_metadata(p_store_, type, static_cast<qx_uint32_t>(bytes.size()),
                                             const_cast<char *>(bytes.data()));
    }
    qx_int32_t add(qx_uint32_t type, const std::string &bytes) {
        return sr_i_add_application_metadata_element(p_store_, type,
                                                     static_cast<qx_uint32_t>(bytes.size()),
                                                     const_cast<char *>(bytes.data()));
    }
    View get(qx_uint32_t type, qx_uint32_t visible) {
        qx_uint32_t length = 0;
        char *p_data = nullptr;
        qx_int32_t rc =
            sr_i_get_application_metadata_element(p_store_, type, visible, &length, &p_data);
        View view{rc, rc == 0 ? std::string(p_data, length) : std::string()};
        free(p_data);
        return view;
    }
    std::vector<Element> state() {
        std::vector<Element> elements;
        for (qx_uint32_t i = 0; i < p_store_->total_elements; ++i) {
            const auto &e = p_store_->p_index[i];
            elements.push_back(
                Element{e.type, get(e.type, 1), get(e.type, 0), e.p_applied == e.p_committed});
        }
        cu_set_no_error_1();
        return elements;
    }
    void commit() { ASSERT_EQ(0, sr_i_commit_application_metadata_buffer_updates(p_store_)); }
    void abort() { ASSERT_EQ(0, sr_i_abort_application_metadata_buffer_updates(p_store_)); }
    sr_i_application_metadata_t *p_store_ = nullptr;
};

TEST_F(ApplicationMetadataTest, SetValueIsInvisibleInTheCommittedViewUntilCommit) {
    ASSERT_EQ(0, set(0, "hello"));
    EXPECT_EQ((View{202, ""}), get(0, 0));
    EXPECT_EQ(202, last_error().code);
    EXPECT_EQ((View{0, "hello"}), get(0, 1));
    commit();
    EXPECT_EQ((View{0, "hello"}), get(0, 0));
    EXPECT_EQ(p_store_->p_index[0].p_applied, p_store_->p_index[0].p_committed);
}

TEST_F(ApplicationMetadataTest, SettingTwiceBeforeCommitKeepsOnlyTheSecondBlock) {
    ASSERT_EQ(0, set(4, "first"));
    qx_binary_t *p_first = p_store_->p_index[0].p_applied;
    ASSERT_EQ(0, set(4, "second"));
    EXPECT_NE(p_first, p_store_->p_index[0].p_applied);  // the first was freed (ASan)
    EXPECT_EQ(nullptr, p_store_->p_index[0].p_committed);
    commit();
    EXPECT_EQ((std::vector<Element>{{4, {0, "second"}, {0, "second"}, true}}), state());
}

TEST_F(ApplicationMetadataTest, SettingACommittedElementKeepsTheCommittedBlock) {
    ASSERT_EQ(0, set(1, "old"));
    commit();
    ASSERT_EQ(0, set(1, "new"));
    ASSERT_EQ(0, set(1, "newer"));
    EXPECT_EQ((std::vector<Element>{{1, {0, "newer"}, {0, "old"}, false}}), state());
    commit();
    EXPECT_EQ((std::vector<Element>{{1, {0, "newer"}, {0, "newer"}, true}}), state());
}

TEST_F(ApplicationMetadataTest, DeleteThenSetBeforeCommitKeepsTheElementWithTheNewData) {
    ASSERT_EQ(0, set(2, "before"));
    commit();
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_store_, 2));
    EXPECT_EQ((View{204, ""}), get(2, 1));
    EXPECT_EQ(204, last_error().code);
    EXPECT_EQ((View{0, "before"}), get(2, 0));
    ASSERT_EQ(0, set(2, "after"));
    commit();
    EXPECT_EQ((std::vector<Element>{{2, {0, "after"}, {0, "after"}, true}}), state());
}

TEST_F(ApplicationMetadataTest, CommitRemovesDeletedElements) {
    ASSERT_EQ(0, set(1, "a"));
    ASSERT_EQ(0, set(2, "b"));
    ASSERT_EQ(0, set(3, "c"));
    commit();
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_store_, 1));
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_store_, 2));
    EXPECT_EQ(0, sr_i_delete_application_metadata_element(p_store_, 2));  // nothing left to do
    commit();
    EXPECT_EQ((std::vector<Element>{{3, {0, "c"}, {0, "c"}, true}}), state());
    EXPECT_EQ(202, sr_i_delete_application_metadata_element(p_store_, 1));
}

TEST_F(ApplicationMetadataTest, AbortDropsOnlyAddedElementsAndRestoresTheRest) {
    ASSERT_EQ(0, set(1, "kept"));
    ASSERT_EQ(0, set(2, "changed"));
    ASSERT_EQ(0, set(3, "deleted"));
    commit();
    std::vector<Element> committed = state();
    ASSERT_EQ(0, set(2, "changed again"));
    ASSERT_EQ(0, sr_i_delete_application_metadata_element(p_store_, 3));
    ASSERT_EQ(0, set(0, "added"));
    ASSERT_EQ(0, set(9, "added too"));
    abort();
    EXPECT_EQ(committed, state());
}

TEST_F(ApplicationMetadataTest, ElementsStaySortedByTypeAndTheIndexGrows) {
    for (qx_uint32_t type : {50u, 10u, 40u, 20u, 30u, 0u, 60u}) {
        ASSERT_EQ(0, add(type, std::to_string(type)));
    }
    EXPECT_EQ(7u, p_store_->total_elements);
    EXPECT_GE(p_store_->max_elements, 7u);
    for (qx_uint32_t i = 0; i < 7; ++i) EXPECT_EQ(i * 10, p_store_->p_index[i].type);
    EXPECT_EQ((View{0, "40"}), get(40, 1));
    EXPECT_EQ((View{202, ""}), get(35, 1));
    EXPECT_EQ((View{202, ""}), get(70, 1));
}

TEST_F(ApplicationMetadataTest, AddingAnExistingTypeIs108) {
    ASSERT_EQ(0, add(3, "x"));
    EXPECT_EQ(108, add(3, "y"));
    EXPECT_EQ(108, last_error().code);
    EXPECT_EQ((View{0, "x"}), get(3, 1));
}

TEST_F(ApplicationMetadataTest, SettingAnAbsentElementIs202) {
    EXPECT_EQ(202, sr_i_set_application_metadata_element(p_store_, 5, 1, const_cast<char *>("z")));
    EXPECT_EQ(202, last_error().code);
    EXPECT_EQ(0u, p_store_->total_elements);
}

TEST_F(ApplicationMetadataTest, ZeroLengthBlockIsStoredAndReturned) {
    ASSERT_EQ(0, sr_i_set_application_metadata(p_store_, 0, 0, nullptr));
    commit();
    EXPECT_EQ((View{0, ""}), get(0, 0));
    qx_binary_t *p_binary = nullptr;
    ASSERT_EQ(0, sr_i_get_application_metadata_element_binary(p_store_, 0, 0, &p_binary));
    EXPECT_EQ(0u, p_binary->length);
    free(p_binary);
}

TEST_F(ApplicationMetadataTest, BinaryFormCopiesLengthWordAndBytes) {
    std::string bytes("\x00\x01\x02zz", 5);
    ASSERT_EQ(0, set(0, bytes));
    qx_binary_t *p_binary = nullptr;
    ASSERT_EQ(0, sr_i_get_application_metadata_element_binary(p_store_, 0, 1, &p_binary));
    ASSERT_NE(p_store_->p_index[0].p_applied, p_binary);  // a copy
    EXPECT_EQ(5u, p_binary->length);
    EXPECT_EQ(0, memcmp(p_binary->data, bytes.data(), 5));
    free(p_binary);
    EXPECT_EQ(202, sr_i_get_application_metadata_element_binary(p_store_, 0, 0, &p_binary));
}

TEST_F(ApplicationMetadataTest, GetWithVisibilityFirstHasTheSameAnswers) {
    ASSERT_EQ(0, set(7, "seven"));
    qx_uint32_t length = 0;
    char *p_data = nullptr;
    ASSERT_EQ(0, sr_i_get_application_metadata(p_store_, 1, 7, &length, &p_data));
    EXPECT_EQ("seven", std::string(p_data, length));
    free(p_data);
    EXPECT_EQ(202, sr_i_get_application_metadata(p_store_, 0, 7, &length, &p_data));
}

qx_int32_t set_v(sr_i_application_metadata_t *p_store, qx_uint32_t count, ...) {
    va_list ap;
    va_start(ap, count);
    qx_int32_t rc = sr_i_set_application_metadata_v(p_store, count, ap);
    va_end(ap);
    return rc;
}

TEST_F(ApplicationMetadataTest, VariadicSetStoresEachTriple) {
    ASSERT_EQ(0, set(2, "old two"));
    ASSERT_EQ(0, set_v(p_store_, 3, 2u, 3u, "two", 1u, 3u, "one", 5u, 4u, "five"));
    EXPECT_EQ((View{0, "one"}), get(1, 1));
    EXPECT_EQ((View{0, "two"}), get(2, 1));
    EXPECT_EQ((View{0, "five"}), get(5, 1));
}

TEST_F(ApplicationMetadataTest, DuplicateHoldsTheCommittedBlocksAsCommitted) {
    ASSERT_EQ(0, set(1, "one"));
    ASSERT_EQ(0, set(3, "three"));
    commit();
    sr_i_application_metadata_t *p_copy = nullptr;
    ASSERT_EQ(0, sr_i_duplicate_application_metadata_buffer(p_store_, &p_copy));
    std::vector<Element> original = state();
    std::swap(p_store_, p_copy);
    EXPECT_EQ(original, state());
    EXPECT_NE(p_copy->p_index[0].p_committed, p_store_->p_index[0].p_committed);
    sr_i_free_application_metadata(p_copy);
}

TEST_F(ApplicationMetadataTest, StoreWithNoRoomStillGrows) {
    sr_i_free_application_metadata(p_store_);
    ASSERT_EQ(0, sr_i_allocate_application_metadata_buffer(0, &p_store_));
    ASSERT_EQ(0, add(1, "a"));
    ASSERT_EQ(0, add(2, "b"));
    EXPECT_EQ(2u, p_store_->total_elements);
}

// Runs `attempt` with the n-th allocation failing for n = 0, 1, ... and
// checks that each failed run returned 12 and left the store unchanged.
template <typename Attempt>
void each_failure_leaves_store(ApplicationMetadataTest *p_test, Attempt attempt,
                               std::vector<Element> (ApplicationMetadataTest::*state)()) {
    std::vector<Element> before = (p_test->*state)();
    for (qx_int64_t n = 0;; ++n) {
        ASSERT_LT(n, 100);
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = attempt();
        bool failed = !sr_i_alloc_failure_pending();
        sr_i_alloc_fail_after(-1);
        if (!failed) {
            EXPECT_EQ(0, rc);
            return;
        }
        EXPECT_EQ(12, rc) << "allocation " << n;
        EXPECT_EQ(before, (p_test->*state)()) << "allocation " << n;
    }
}

class ApplicationMetadataFailureTest : public ApplicationMetadataTest {
  public:
    using ApplicationMetadataTest::state;
    void fill() {
        ASSERT_EQ(0, set(1, "one"));
        ASSERT_EQ(0, set(2, "two"));
        commit();
        ASSERT_EQ(0, set(2, "two changed"));
    }
};

TEST_F(ApplicationMetadataFailureTest, AddFailsCleanly) {
    fill();
    each_failure_leaves_store(
        this, [&] { return add(3, "three"); }, &ApplicationMetadataFailureTest::state);
}

TEST_F(ApplicationMetadataFailureTest, AddThatMustGrowTheIndexFailsCleanly) {
    fill();
    ASSERT_EQ(p_store_->total_elements, p_store_->max_elements);
    each_failure_leaves_store(
        this, [&] { return add(0, "zero"); }, &ApplicationMetadataFailureTest::state);
}

TEST_F(ApplicationMetadataFailureTest, SetFailsCleanly) {
    fill();
    each_failure_leaves_store(
        this, [&] { return set(2, "two again"); }, &ApplicationMetadataFailureTest::state);
    each_failure_leaves_store(
        this, [&] { return set(1, "one changed"); }, &ApplicationMetadataFailureTest::state);
}

TEST_F(ApplicationMetadataFailureTest, GetFailsCleanly) {
    fill();
    qx_uint32_t length = 0;
    char *p_data = nullptr;
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(12, sr_i_get_application_metadata_element(p_store_, 1, 1, &length, &p_data));
    EXPECT_EQ(nullptr, p_data);
    qx_binary_t *p_binary = nullptr;
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(12, sr_i_get_application_metadata_element_binary(p_store_, 1, 1, &p_binary));
    EXPECT_EQ(nullptr, p_binary);
}

TEST_F(ApplicationMetadataFailureTest, DuplicateAndAllocateFailWithoutLeaks) {
    fill();
    commit();
    for (qx_int64_t n = 0;; ++n) {
        ASSERT_LT(n, 100);
        sr_i_alloc_fail_after(n);
        sr_i_application_metadata_t *p_copy = nullptr;
        qx_int32_t rc = sr_i_duplicate_application_metadata_buffer(p_store_, &p_copy);
        bool failed = !sr_i_alloc_failure_pending();
        sr_i_alloc_fail_after(-1);
        if (!failed) {
            ASSERT_EQ(0, rc);
            sr_i_free_application_metadata(p_copy);
            EXPECT_GE(n, 4);  // store, index, two blocks
            break;
        }
        EXPECT_EQ(12, rc);
        EXPECT_EQ(nullptr, p_copy);
    }
}

}  // namespace
