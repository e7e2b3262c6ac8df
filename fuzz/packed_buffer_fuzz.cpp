// Packed table buffers arrive from other processes and machines: a damaged or
// hostile buffer must be refused with a result code, never crash or read
// outside its bytes.  The calls take no length, so the input's size is put in
// its length word (the contract every caller keeps) and the input is held in
// a block of exactly that size.  Each table is named, unpacked, read field by
// field and dumped; then a copy is converted as if it came from the other
// byte order and walked again.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "sr_i.h"

namespace {

sr_opaque_handle_t tree() {
    static sr_opaque_handle_t handle = [] {
        sr_opaque_handle_t t = nullptr;
        if (sr_open_tree_1(&t, 0, 0) != 0) abort();
        return t;
    }();
    return handle;
}

FILE *sink() {
    static FILE *p = fopen("/dev/null", "w");
    return p;
}

void read_table(sr_opaque_handle_t table) {
    auto *p_table = static_cast<sr_i_table_t *>(table);
    std::vector<std::string> names;
    for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
        names.push_back(sr_i_load_column(&p_table->p_columns[c]).name);
    }
    std::vector<qx_char_ptr_t> name_pointers;
    for (std::string &name : names) name_pointers.push_back(name.data());
    std::vector<qx_value_t> values(names.size());
    std::vector<qx_value_t *> value_pointers;
    for (qx_value_t &v : values) value_pointers.push_back(&v);
    for (qx_uint32_t row = 0; row < p_table->total_committed_rows; ++row) {
        (void)sr_get_fields_by_index_1(table, static_cast<qx_int32_t>(row), name_pointers.data(),
                                       value_pointers.data(),
                                       static_cast<qx_uint32_t>(name_pointers.size()));
    }
    sr_i_dump_table(p_table, sink(), SR_I_DUMP_ALL);
}

void walk(void *p_buffer) {
    qx_uint32_t total = 0;
    if (sr_get_total_packed_tables_1(p_buffer, &total) != 0) return;
    for (qx_uint32_t i = 0; i < total && i < 4; ++i) {
        qx_char_ptr_t name = nullptr;
        if (sr_get_packed_table_name_1(p_buffer, i, &name) == 0) (void)strlen(name);
        sr_opaque_handle_t table = nullptr;
        if (sr_unpack_table_1(p_buffer, 0, nullptr, nullptr, tree(), i, &table) != 0) continue;
        read_table(table);
        if (sr_close_table_1(table) != 0) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    const qx_uint32_t length = static_cast<qx_uint32_t>(size);
    for (int pass = 0; pass < 2; ++pass) {
        auto *p = static_cast<char *>(malloc(size));
        memcpy(p, data, size);
        memcpy(p, &length, 4);
        // The second pass takes the buffer for one of the other byte order
        // whose header the transport has converted.
        if (pass == 0 || sr_convert_packed_table_buffer_1(p, 1, 1) == 0 || size > 40) walk(p);
        free(p);
    }
    return 0;
}
