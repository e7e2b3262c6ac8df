// Messages, error records, trees, errno capture, fork, and 101 for every NULL pointer.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "sr/table_test_util.h"

using qxtest::last_error;

namespace {

SR_SOURCE_FILE("tests/sr/foundation_test", "9.9");

TEST(MessageTableTest, TextsInCodeOrderAndTheCatalogueMatchesThem) {
    const int codes[] = {10,  11,  12,  13,  14,  15,  100, 101, 102, 103, 104, 105, 106, 107, 108,
                         109, 200, 201, 202, 203, 204, 205, 206, 207, 208, 209, 210, 211, 212};
    EXPECT_EQ(0u, sr_i_message_index(0));
    EXPECT_EQ(0u, sr_i_message_index(16));
    // ctest sets NLSPATH to the generated catalogue, whose text must win.
    const bool catalogue = getenv("NLSPATH") != nullptr;
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        const std::string text = cu_mesgtbl_qx_sr_set[i];
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "2605-%03d ", codes[i - 1]);
        EXPECT_EQ(0u, text.rfind(prefix, 0)) << i;
        EXPECT_EQ('\n', text.back()) << i;
        EXPECT_EQ(static_cast<qx_uint32_t>(i), sr_i_message_index(codes[i - 1]));
        if (!catalogue) continue;
        cu_set_error_1(1, nullptr, "qx_sr.cat", 1, i, "%1$s%2$d%3$s%4$d%5$s%6$s", "a", 2, "c", 4,
                       "e", "f");
        EXPECT_EQ(last_error().message.substr(0, 9), prefix) << i;
    }
}

TEST(ErrorReportTest, RecordsCarryTheirValuesPerThreadAndSuccessClears) {
    int line = __LINE__ + 1;
    EXPECT_EQ(10, sr_i_set_error(sr_i_this_source, "sr_i_open_file", line, 10, "open", 2));
    EXPECT_EQ(
        "2605-010 The open system call unexpectedly returned an errno of 2 to the "
        "sr_i_open_file function near line " +
            std::to_string(line) + " of file tests/sr/foundation_test, version 9.9.\n",
        last_error().message);
    EXPECT_EQ(12, SR_ERROR(12));
    EXPECT_NE(std::string::npos, last_error().message.find("2605-012 Memory could not be allocated "
                                                           "in the TestBody function near line"));
    SR_ERROR_TEXT(102, "a//b");
    EXPECT_EQ("2605-102 a//b is an invalid pathname.\n", last_error().message);
    SR_ERROR(205);
    std::thread other([] {
        EXPECT_EQ(0, last_error().code);
        SR_ERROR(201);
    });
    other.join();
    EXPECT_EQ(205, last_error().code);
    EXPECT_EQ(100, sr_open_tree_1(nullptr, 0, 0));
    EXPECT_EQ(100, sr_close_tree_1(nullptr));
    sr_opaque_handle_t tree = nullptr;  // retries and timeout are ignored
    EXPECT_EQ(0, sr_open_tree_1(&tree, 4000000000u, ~0ull));
    EXPECT_EQ(0, last_error().code);
    EXPECT_EQ(0, sr_close_tree_1(tree));
}

// A link planted under the capture's name is not followed; no write access: skipped quietly.
TEST(ErrnoCaptureTest, NoLinkFollowedUnwritableSkipped) {
    qxtest::TempDir dir;
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    const std::string name = dir.file("reginfo_pid." + std::to_string(getpid()));
    const std::string victim = dir.file("victim");
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    for (bool hard : {false, true}) {
        std::ofstream(victim) << "precious";
        unlink(name.c_str());
        ASSERT_EQ(
            0, hard ? link(victim.c_str(), name.c_str()) : symlink(victim.c_str(), name.c_str()));
        sr_i_capture_errno("sr_i_fdatasync", 5, 120, "1.1");
        EXPECT_EQ("precious", qxtest::ReadBytes(victim)) << hard;
    }
    ASSERT_EQ(0, mkdir("ro", 0500));
    ASSERT_EQ(0, chdir("ro"));
    sr_i_capture_errno("f", 1, 2, "v");
    ASSERT_EQ(0, chdir(cwd));
}

// fork() waits for the API mutex another thread holds; the child gets a free one.
TEST(ForkConcurrencyTest, ForkWaitsForTheApiMutexAndChildGetsAFreeOne) {
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(0, sr_open_tree_1(&tree, 0, 0));  // installs the fork handlers
    sr_i_fork_mutex_lock();
    std::atomic<bool> forked{false};
    std::atomic<int> child_status{-1};
    std::thread forker([&] {
        pid_t pid = fork();
        if (pid == 0) _exit(pthread_mutex_trylock(&ForkMutex) == 0 ? 0 : 3);
        forked = true;
        int status = 0;
        waitpid(pid, &status, 0);
        child_status = WIFEXITED(status) ? WEXITSTATUS(status) : 99;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(forked.load()) << "fork completed while the API mutex was held";
    sr_i_fork_mutex_unlock();
    forker.join();
    EXPECT_EQ(0, child_status.load());
    EXPECT_EQ(0, pthread_mutex_trylock(&ForkMutex));
    pthread_mutex_unlock(&ForkMutex);
    EXPECT_EQ(0, sr_close_tree_1(tree));
}

qx_int32_t SelectedRows(sr_opaque_handle_t table, qx_uint32_t *p_total, qx_uint32_t **p_p_rows,
                        ...) {
    va_list ap;
    va_start(ap, p_p_rows);
    qx_int32_t rc = sr_get_selected_rows_v_1(table, nullptr, ap, 0, p_total, p_p_rows);
    va_end(ap);
    return rc;
}

using NullPointerTest = qxtest::TableTest;

TEST_F(NullPointerTest, EveryExportedCallGives101ForEachMissingPointerBeforeLockAndMode) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    sr_opaque_handle_t t = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_READ, &t), 0);
    sr_opaque_handle_t r = tree_, handle = nullptr;
    auto Hash = [](const void *) -> qx_uint32_t { return 0; };
    auto Cmp = [](const void *, const void *) -> qx_int32_t { return 0; };

    char *k = Text("k"), *c1 = Text("c1"), *mn = Text("/m/n");
    qx_value_t v{}, key{};
    qx_char_ptr_t ns[1] = {c1}, nn[1] = {nullptr}, *p_list = nullptr, p_text = nullptr;
    qx_value_t *vs[1] = {&v}, *nv[1] = {nullptr};
    qx_uint32_t count = 0, *p_rows = nullptr, visible[1] = {0};
    sr_row_state_t st{};
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_column_t *cols = columns.data();
    void *p_buffer = nullptr;
    alignas(8) char buffer[64] = {};

    // Each entry passes NULL for one required pointer (an array or one of its entries).
    const std::vector<std::function<qx_int32_t()>> cases = {
        [&] { return sr_add_columns_1(t, nullptr, 1); },
        [&] { return sr_delete_columns_1(t, nullptr, 1); },
        [&] { return sr_delete_columns_1(t, nn, 1); },
        [&] { return sr_change_column_name_1(t, nullptr, k); },
        [&] { return sr_change_column_name_1(t, c1, nullptr); },
        [&] { return sr_change_default_value_1(t, nullptr, v); },
        [&] { return sr_overlay_memory_default_value_1(t, nullptr, v); },
        [&] { return sr_overlay_memory_column_qualifier_1(t, nullptr, SR_STANDARD); },
        [&] { return sr_get_table_metadata_1(t, 0, nullptr); },
        [&] { return sr_get_application_metadata_1(t, nullptr); },
        [&] { return sr_set_application_metadata_1(t, nullptr); },
        [&] { return sr_add_row_1(t, nullptr, vs, 1); },
        [&] { return sr_add_row_1(t, ns, nullptr, 1); },
        [&] { return sr_add_row_1(t, nn, vs, 1); },
        [&] { return sr_add_row_1(t, ns, nv, 1); },
        [&] { return sr_get_field_by_index_1(t, 0, nullptr, &v); },
        [&] { return sr_get_field_by_index_1(t, 0, c1, nullptr); },
        [&] { return sr_get_field_by_index_and_visibility_1(t, 0, c1, nullptr, 0, &st); },
        [&] { return sr_get_field_by_fixed_index_and_visibility_1(t, 0, nullptr, &v, 0, &st); },
        [&] { return sr_get_field_by_key_1(t, key, c1, nullptr); },
        [&] { return sr_get_field_by_key_and_visibility_1(t, key, nullptr, &v, 0, &st); },
        [&] { return sr_get_fields_by_index_1(t, 0, nullptr, vs, 1); },
        [&] { return sr_get_fields_by_index_1(t, 0, ns, nv, 1); },
        [&] { return sr_get_fields_by_index_and_visibility_1(t, 0, nn, vs, 1, 0, &st); },
        [&] { return sr_get_fields_by_fixed_index_and_visibility_1(t, 0, ns, nullptr, 1, 0, &st); },
        [&] { return sr_get_fields_by_key_1(t, key, ns, nullptr, 1); },
        [&] { return sr_get_fields_by_key_and_visibility_1(t, key, nullptr, vs, 1, 0, &st); },
        [&] { return sr_get_fixed_row_index_for_key_1(t, key, nullptr); },
        [&] { return sr_get_updated_rows_1(t, nullptr, &p_rows); },
        [&] { return sr_get_updated_rows_1(t, &count, nullptr); },
        [&] { return sr_set_field_by_index_1(t, 0, nullptr, &v); },
        [&] { return sr_set_field_by_fixed_index_1(t, 0, c1, nullptr); },
        [&] { return sr_set_field_by_key_1(t, key, nullptr, &v); },
        [&] { return sr_set_fields_by_index_1(t, 0, nullptr, vs, 1); },
        [&] { return sr_set_fields_by_fixed_index_1(t, 0, ns, nv, 1); },
        [&] { return sr_set_fields_by_key_1(t, key, nn, vs, 1); },
        [&] { return sr_select_1(t, ns, 1, nullptr, nullptr); },
        [&] { return SelectedRows(t, nullptr, &p_rows); },
        [&] { return SelectedRows(t, &count, nullptr); },
        [&] { return sr_get_duplicate_rows_1(t, key, nullptr, &p_rows, 0); },
        [&] { return sr_get_duplicate_rows_1(t, key, &count, nullptr, 0); },
        [&] { return sr_pack_tables_1(1, nullptr, visible, nullptr, nullptr, &p_buffer); },
        [&] { return sr_pack_tables_1(1, &t, nullptr, nullptr, nullptr, &p_buffer); },
        [&] { return sr_pack_tables_1(1, &t, visible, nullptr, nullptr, nullptr); },
        [&] { return sr_mount_local_tree_1(r, Text("/x"), nullptr, 1); },
        [&] { return sr_list_tables_1(r, Text("/m"), nullptr, &count); },
        [&] { return sr_list_tables_1(r, Text("/m"), &p_list, nullptr); },
        [&] { return sr_i_get_directory_list_compat(r, Text("/m"), nullptr, &count); },
        [&] { return sr_create_table_1(r, mn, nullptr, 2, 2, &handle); },
        [&] { return sr_create_table_1(r, mn, cols, 2, 2, nullptr); },
        [&] { return sr_create_hashed_key_table_1(r, mn, cols, 2, 2, 16, nullptr, Cmp, &handle); },
        [&] { return sr_create_hashed_key_table_1(r, mn, cols, 2, 2, 16, Hash, Cmp, nullptr); },
        [&] { return sr_open_table_1(r, Text("/m/t"), 1, nullptr); },
        [&] { return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, nullptr, &handle); },
        [&] { return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, Cmp, nullptr); },
        [&] { return sr_repair_tables_1(r, nullptr, 1); },
        [&] { return sr_free_table_list_1(nullptr, 0); },
        [&] { return sr_free_table_metadata_1(nullptr); },
        [&] { return sr_get_total_packed_tables_1(nullptr, &count); },
        [&] { return sr_get_total_packed_tables_1(buffer, nullptr); },
        [&] { return sr_get_packed_table_name_1(nullptr, 0, &p_text); },
        [&] { return sr_get_packed_table_name_1(buffer, 0, nullptr); },
        [&] { return sr_convert_packed_table_buffer_1(nullptr, 0, 0); },
        [&] { return sr_unpack_table_1(nullptr, 0, nullptr, nullptr, r, 0, &handle); },
        [&] { return sr_unpack_table_1(buffer, 0, nullptr, nullptr, r, 0, nullptr); },
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(cases[i](), SR_E_NULL_POINTER) << "case " << i;
        EXPECT_EQ(qxtest::last_error().code, SR_E_NULL_POINTER) << "case " << i;
    }
    // Nothing was made or changed on the way.
    EXPECT_FALSE(qxtest::Exists(File("n")));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(p_buffer, nullptr);
    EXPECT_EQ(sr_close_table_1(t), 0);
}

}  // namespace
