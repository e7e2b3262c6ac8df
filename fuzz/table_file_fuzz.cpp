// Table files are outside data: a damaged or hostile file must give 14 (or
// load), never a crash, a hang or a read outside the bytes read.  Each input
// is written as a table file and read back with the reader; a table that
// loads is then walked the way the rest of the library uses it: every pool
// record by length, every live row's key, the hashed key index.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "sr_i.h"

namespace {

const std::string &file_name() {
    static const std::string name = [] {
        const char *base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr ? base : "/tmp") + "/qxsr-fuzz-XXXXXX";
        char *made = mkdtemp(templ.data());
        return std::string(made != nullptr ? made : "/tmp") + "/table";
    }();
    return name;
}

void exercise(sr_i_table_t *p_table) {
    // The pool tiles every buffer.
    for (sr_i_record_buffer_t *p = p_table->record_buffer_pool.p_first_record_buffer; p != nullptr;
         p = p->p_next) {
        char *p_record = sr_i_rb_buffer_data(p);
        char *p_end = sr_i_rb_buffer_end(p);
        while (p_record < p_end) {
            qx_uint32_t length = sr_i_record_length(p_record);
            if (length < SR_I_RECORD_HEADER_LENGTH) abort();
            p_record += length;
        }
        if (p_record != p_end) abort();
    }
    // Every live row's key can be looked up through the index it is in.
    for (qx_uint32_t i = 0; i < p_table->total_committed_rows; ++i) {
        qx_uint32_t fixed = p_table->p_rows_packed_index[i];
        if (fixed >= p_table->maximum_rows) abort();
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[fixed];
        if (p_entry->p_committed == nullptr) abort();
        char *p_key = sr_i_row_key_value(p_table, p_entry->p_committed);
        if (p_table->p_rows_hash_table != nullptr) {
            qx_uint32_t row = 0;
            char **p_p_key = nullptr;
            (void)sr_i_hash_table_get_index(p_table->p_rows_hash_table, p_key, &row, &p_p_key);
        }
    }
    // Column names and definitions are readable text.
    for (qx_uint32_t i = 0; i < p_table->total_columns; ++i) {
        sr_column_t column = sr_i_load_column(&p_table->p_columns[i]);
        (void)strlen(column.name);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &name = file_name();
    FILE *p_file = fopen(name.c_str(), "wb");
    if (p_file == nullptr) return 0;
    if (size > 0 && fwrite(data, 1, size, p_file) != size) {
        fclose(p_file);
        return 0;
    }
    fclose(p_file);
    sr_i_table_t *p_table = nullptr;
    if (sr_i_open_persistent_table(nullptr, nullptr, name.c_str(), SR_MODE_READ, 512, nullptr,
                                   &p_table) == 0) {
        exercise(p_table);
        sr_i_close_table(p_table);
    }
    return 0;
}
