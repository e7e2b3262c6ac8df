// sr_delete_rows_1: deletes every live row (NULL criteria) or the rows a
// selection expression matches; the deletions are pending until commit.
#include <stdarg.h>
#include <stdlib.h>

#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_select.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_delete_rows", "1.1");

extern "C" qx_int32_t sr_delete_rows_1(sr_opaque_handle_t table_handle,
                                       qx_char_ptr_t selection_criteria, ...) {
    static constexpr sr_i_frame_t kFrame = sr_i_update_frame("sr_delete_rows_1", 31);
    // The criteria are formatted with the values after them; the text is
    // freed before the lock is released.
    va_list ap;
    va_start(ap, selection_criteria);
    qx_int32_t rc = sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) -> qx_int32_t {
            char *p_text = nullptr;
            if (selection_criteria != nullptr) {
                qx_int32_t format_rc = sr_i_select_printf(&p_text, selection_criteria, ap);
                if (format_rc != 0) return format_rc;
            }
            qx_int32_t work_rc = sr_i_delete_rows(p_table, p_text);
            free(p_text);
            return work_rc;
        });
    va_end(ap);
    return rc;
}
