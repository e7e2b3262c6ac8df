// The directory calls of the older interface.  Registry directories do not
// exist as such (they are prefixes of table names), so listing one is a table
// listing dressed as directory entries, and creating or deleting one does
// nothing.  These calls are neither traced nor serialised by the API mutex.
#include <cstdlib>

#include "sr_i_frame.h"
#include "sr_i_pool.h"

SR_SOURCE_FILE("sr/sr_x_directory_compat", "1.1");

extern "C" qx_int32_t sr_i_get_directory_list_compat(sr_opaque_handle_t tree_handle,
                                                     qx_char_ptr_t directory_name,
                                                     sr_entry_metadata_t **entry_list,
                                                     qx_uint32_t *array_count) {
    if (!sr_i_required_present({.pointers = {entry_list, array_count}})) {
        return sr_i_set_error(sr_i_this_source, "sr_i_get_directory_list_compat", __LINE__,
                              SR_E_NULL_POINTER);
    }
    qx_char_ptr_t *p_names = nullptr;
    qx_uint32_t total = 0;
    qx_int32_t rc = sr_list_tables_1(tree_handle, directory_name, &p_names, &total);
    if (rc != 0) return rc;
    if (total == 0) {
        // This interface tells "nothing there" by a NULL list.
        sr_free_table_list_1(p_names, 0);
        *entry_list = nullptr;
        *array_count = 0;
        return 0;
    }
    auto *p_entries =
        static_cast<sr_entry_metadata_t *>(sr_i_calloc(total, sizeof(sr_entry_metadata_t)));
    if (p_entries == nullptr) {
        sr_free_table_list_1(p_names, total);
        return sr_i_set_error(sr_i_this_source, "sr_i_get_directory_list_compat", __LINE__,
                              SR_E_NO_MEMORY);
    }
    // The entries share the listed names; every entry carries the whole name
    // array so that the free call can find it from the first entry.
    for (qx_uint32_t i = 0; i < total; ++i) {
        p_entries[i].name = p_names[i];
        p_entries[i].type = SR_TABLE;
        p_entries[i].storage = SR_UNKNOWN_STORAGE;
        p_entries[i].p_table_list = p_names;
    }
    *entry_list = p_entries;
    *array_count = total;
    return 0;
}

extern "C" qx_int32_t sr_i_free_directory_list_compat(sr_entry_metadata_t *entry_list,
                                                      qx_uint32_t array_count) {
    if (entry_list == nullptr) return 0;
    qx_int32_t rc = sr_free_table_list_1(entry_list[0].p_table_list, array_count);
    std::free(entry_list);
    return rc;
}

extern "C" qx_int32_t sr_i_create_directory_compat(void) {
    return 0;
}

extern "C" qx_int32_t sr_i_delete_directory_compat(void) {
    return 0;
}
