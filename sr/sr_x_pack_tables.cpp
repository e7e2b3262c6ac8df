// sr_pack_tables_1: packs whole tables into one buffer another process can
// convert and unpack.  Holds the read locks of all the tables at once, so the
// buffer is one consistent picture of them; takes no global mutex.
#include <cstdlib>

#include "sr_i_frame.h"
#include "sr_i_pack.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_pack_tables", "1.1");

namespace {

void unlock_tables(sr_i_table_t **p_tables, qx_uint32_t total_locked) {
    while (total_locked > 0) {
        --total_locked;
        sr_i_rw_unlock_read(&p_tables[total_locked]->lock);
    }
}

}  // namespace

extern "C" qx_int32_t sr_pack_tables_1(qx_uint32_t total_tables,
                                       sr_opaque_handle_t *p_table_handles,
                                       qx_uint32_t *p_uncommitted_updates_visible,
                                       qx_uint32_t *p_total_row_fixed_indices,
                                       qx_uint32_t *p_row_fixed_indices, void **p_p_buffer) {
    // No handle of its own and no lock around the work, which takes the read
    // locks of all the tables itself; no ForkMutex.  The arrays are needed
    // only when there are tables to pack.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_pack_tables_1", .entry_id = 109};
    const sr_i_required_t required{.pointers = {p_p_buffer},
                                   .paths = {p_table_handles, p_uncommitted_updates_visible},
                                   .count = total_tables};
    return sr_i_api_call<void>(sr_i_this_source, kFrame, nullptr, required, [&](void *) {
        auto **p_tables = reinterpret_cast<sr_i_table_t **>(p_table_handles);
        qx_int32_t rc = 0;
        // A fixed-index list is needed as soon as any table asks for chosen
        // rows.
        if (p_total_row_fixed_indices != nullptr && p_row_fixed_indices == nullptr) {
            for (qx_uint32_t i = 0; i < total_tables && rc == 0; ++i) {
                if (p_total_row_fixed_indices[i] != 0) rc = SR_ERROR(SR_E_NULL_POINTER);
            }
        }
        for (qx_uint32_t i = 0; i < total_tables && rc == 0; ++i) {
            if (p_tables[i] == nullptr) rc = SR_ERROR(SR_E_INVALID_HANDLE);
        }
        qx_uint32_t total_locked = 0;
        while (rc == 0 && total_locked < total_tables) {
            rc = sr_i_rw_lock_read(&p_tables[total_locked]->lock);
            if (rc == 0) ++total_locked;
        }
        // A lock that could not be taken: give back the ones held, last first.
        if (rc != 0) {
            unlock_tables(p_tables, total_locked);
            total_locked = 0;
        }
        qx_uint32_t *p_view_applied = nullptr;
        if (rc == 0) {
            // A table whose readers see uncommitted updates is packed that way
            // too.
            p_view_applied =
                static_cast<qx_uint32_t *>(sr_i_calloc(total_tables, sizeof(qx_uint32_t)));
            if (p_view_applied == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);
            for (qx_uint32_t i = 0; i < total_tables && rc == 0; ++i) {
                p_view_applied[i] = p_uncommitted_updates_visible[i] != 0 ||
                                    p_tables[i]->uncommitted_updates_visible;
            }
        }
        if (rc == 0) {
            rc = sr_i_pack_tables(total_tables, p_tables, p_view_applied, p_total_row_fixed_indices,
                                  p_row_fixed_indices, p_p_buffer);
        }
        std::free(p_view_applied);
        // Once packing is over, done or failed, the locks go in array order.
        for (qx_uint32_t i = 0; i < total_locked; ++i) sr_i_rw_unlock_read(&p_tables[i]->lock);
        return rc;
    });
}
