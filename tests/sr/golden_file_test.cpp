// Table file and packed buffer bytes built from the format alone, written and read exactly.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

namespace {

using qxtest::ReadBytes;

template <typename T>
std::string Bytes(T v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}
std::string W32(size_t v) {
    return Bytes(static_cast<qx_uint32_t>(v));
}

// A caller's value and its stored form: a scalar's 8-byte slot or a pointer's protocol form.
struct V {
    V() { std::memset(&value, 0, sizeof value); }
    qx_data_type_t type = QX_UNKNOWN;
    qx_value_t value;
    bool pointer = false;
    std::string form;
};

// Slots (or anchors from `base`; `typed`: after type and 0) then the forms.
std::string SlotsAndForms(const std::vector<V> &values, size_t base = 0, bool typed = false) {
    std::string slots, forms;
    for (const V &v : values) {
        if (typed) slots += W32(v.type) + W32(0);
        slots += v.pointer ? W32(base + forms.size()) + W32(v.form.size()) : Bytes(v.value);
        if (v.pointer) forms += v.form;
    }
    return slots + forms;
}

class Values {
  public:
    template <typename T>
    V Num(qx_data_type_t type, T x) {
        V v;
        v.type = type;
        std::memcpy(&v.value, &x, sizeof x);
        return v;
    }
    V I32(qx_int32_t x) { return Num(QX_INT32, x); }
    V U32(qx_uint32_t x) { return Num(QX_UINT32, x); }
    // A pointer value: its object is its form unless given.
    V Object(qx_data_type_t type, const std::string &form, void *p_object = nullptr) {
        V v;
        v.type = type, v.pointer = true, v.form = form;
        v.value.ptr_char = static_cast<char *>(p_object != nullptr ? p_object : Keep(form));
        return v;
    }
    V Text(const std::string &s) { return Object(QX_CHAR_PTR, s + '\0'); }
    V Binary(const std::string &b) { return Object(QX_BINARY_PTR, W32(b.size()) + b); }
    V Handle(qx_uint32_t first) {
        std::string form;
        for (qx_uint32_t i = 0; i < 5; ++i) form += W32(first + i);
        return Object(QX_RSRC_HANDLE_PTR, form);
    }
    V Array(qx_data_type_t type, const std::vector<V> &elements) {
        const size_t n = elements.size();
        const bool sd = type == QX_SD_PTR;
        char *p = Zeroed(sd ? QX_SD_SIZE(n) : QX_ARRAY_SIZE(n));
        auto *p_array = reinterpret_cast<qx_array_t *>(p);
        auto *p_sd = reinterpret_cast<qx_structured_data_t *>(p);
        p_array->element_count = static_cast<qx_uint32_t>(n);
        for (size_t i = 0; i < n; ++i) {
            if (sd) p_sd->elements[i] = {elements[i].type, 0, elements[i].value};
            if (!sd) p_array->elements[i] = elements[i].value;
        }
        return Object(type, W32(n) + W32(0) + SlotsAndForms(elements, 8 + (sd ? 16 : 8) * n, sd),
                      p);
    }
    V Sd(const std::vector<V> &elements) { return Array(QX_SD_PTR, elements); }
    static V Null(V v) {
        v.value.ptr_char = nullptr;
        return v;
    }
    char *Name(const std::string &s) { return Keep(s + '\0'); }
    sr_sd_def_t *Definition(const std::vector<std::pair<qx_data_type_t, std::string>> &fields) {
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(
            Zeroed(sizeof(sr_sd_def_t) + fields.size() * sizeof(sr_sd_field_def_t)));
        p_def->number_of_fields = static_cast<qx_uint32_t>(fields.size());
        for (size_t f = 0; f < fields.size(); ++f) {
            p_def->field_def[f] = {fields[f].first, Name(fields[f].second)};
        }
        return p_def;
    }

  private:
    char *Keep(const std::string &bytes) {
        return static_cast<char *>(std::memcpy(Zeroed(bytes.size()), bytes.data(), bytes.size()));
    }
    char *Zeroed(size_t n) {
        blocks_.emplace_back(new char[n + 8]());
        return blocks_.back().get();
    }
    std::vector<std::unique_ptr<char[]>> blocks_;
};

std::string Record(qx_int32_t type, const std::string &data) {
    return W32(12 + data.size()) + W32(0) + Bytes(type) + data;
}
std::string RowRecord(qx_uint32_t replaces_offset, const std::vector<V> &values) {
    return Record(2, W32(replaces_offset) + SlotsAndForms(values));
}
std::string CommitRecord(qx_uint64_t counter, bool last = true, const std::string &block = "") {
    std::string data = Bytes(counter);
    if (!block.empty()) data += W32(1) + W32(0) + W32(block.size()) + block;
    std::string record = Record(-1, W32(data.size()) + data);
    if (!last) record.replace(8, 4, W32(0));
    return record;
}

struct Column {
    const char *p_name;
    qx_data_type_t type;
    qx_uint32_t qualifier;
    qx_int32_t properties;
    sr_sd_def_t *p_definition;
    V default_value;
};

// Entries, then defaults of pointer columns, names and definitions, each at an offset.
std::string MetadataRecord(const std::vector<Column> &columns) {
    std::string defaults, names, definitions, entries;
    std::vector<size_t> default_at, name_at, definition_at;
    for (const Column &c : columns) {
        default_at.push_back(defaults.size());
        if (c.default_value.pointer) defaults += c.default_value.form;
        name_at.push_back(names.size());
        names += std::string(c.p_name) + '\0';
        const sr_sd_def_t *p_def = c.p_definition;
        definition_at.push_back(p_def ? definitions.size() : SIZE_MAX);
        if (p_def) definitions += W32(p_def->number_of_fields);
        for (qx_uint32_t f = 0; p_def && f < p_def->number_of_fields; ++f)
            definitions += W32(p_def->field_def[f].type) + p_def->field_def[f].name + '\0';
    }
    size_t variable = 0;
    for (size_t i = 0; i < columns.size(); ++i) {
        const Column &c = columns[i];
        const size_t definition =
            definition_at[i] == SIZE_MAX ? 0 : defaults.size() + names.size() + definition_at[i];
        entries += W32(defaults.size() + name_at[i]) + W32(c.type) + W32(c.qualifier) +
                   Bytes(c.properties) + W32(definition) + W32(0);
        entries += c.default_value.pointer ? W32(default_at[i]) + W32(c.default_value.form.size())
                                           : Bytes(c.default_value.value);
        variable += c.default_value.pointer;
    }
    const qx_uint16_t probe = 0xFEFF;
    const bool big_endian = reinterpret_cast<const unsigned char *>(&probe)[0] == 0xFE;
    return Record(1, W32(big_endian) + W32(0) + W32(columns.size()) + W32(variable) + entries +
                         defaults + names + definitions);
}

std::string FormOf(qx_data_type_t type, const qx_value_t &value) {
    qx_uint32_t size = 0, running = 0;
    EXPECT_EQ(qx_pmsg_size_conv_protocol_value_1(nullptr, 0, type, &value, &size), 0);
    std::string area(size + 1, '\0');
    qx_pmsg_value_t slot;
    EXPECT_EQ(qx_pmsg_build_conv_protocol_value_1(nullptr, 0, type, &value, &slot, area.data(),
                                                  size + 1, &running),
              0);
    area.resize(running);
    return area;
}

class GoldenFileTest : public qxtest::TableTest {
  protected:
    void ExpectRow(sr_opaque_handle_t table, const std::vector<Column> &columns,
                   const std::vector<V> &row) {
        for (size_t i = 0; i < columns.size(); ++i) {
            qx_value_t got = V().value;
            char *p_name = const_cast<char *>(columns[i].p_name);
            ASSERT_EQ(sr_get_field_by_key_1(table, row[0].value, p_name, &got), 0) << p_name;
            EXPECT_EQ(row[i].pointer ? FormOf(columns[i].type, got) : Bytes(got),
                      row[i].pointer ? row[i].form : Bytes(row[i].value))
                << p_name;
        }
    }
};

// Every type: two rows, update, deletion with odd application metadata, applied tail; packed.
TEST_F(GoldenFileTest, TableFileAndPackedBufferOfEveryTypeAreWrittenAndReadByteForByte) {
    Values v;
    V invalid_handle =
        v.Object(QX_RSRC_HANDLE_PTR,
                 std::string(reinterpret_cast<const char *>(cu_ptr_invld_rsrc_hndl_1), 20));
    invalid_handle.value.ptr_char = nullptr;
    const qx_uint32_t kStd = SR_STANDARD;
    std::vector<Column> columns = {
        {"k", QX_CHAR_PTR, SR_PRIMARY_KEY, 11, nullptr, v.Text("key?")},
        {"s", QX_CHAR_PTR, kStd | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED, -1, nullptr,
         v.Text("default text")},
        {"i32", QX_INT32, kStd, 0, nullptr, v.I32(-7)},
        {"u32", QX_UINT32, kStd | SR_PROTECTED, 0, nullptr, v.U32(7)},
        {"i64", QX_INT64, kStd, 0, nullptr, v.Num(QX_INT64, 1ll << 40)},
        {"u64", QX_UINT64, kStd, 0, nullptr, v.Num(QX_UINT64, ~0ull)},
        {"f32", QX_FLOAT32, kStd, 0, nullptr, v.Num(QX_FLOAT32, 0.25f)},
        {"f64", QX_FLOAT64, kStd, 0, nullptr, v.Num(QX_FLOAT64, -1.5)},
        {"bin", QX_BINARY_PTR, kStd, 0, nullptr, Values::Null(v.Binary(""))},
        {"rh", QX_RSRC_HANDLE_PTR, kStd, 0, nullptr, invalid_handle},
        {"sd", QX_SD_PTR, kStd, 0, v.Definition({{QX_INT32, "n"}, {QX_CHAR_PTR, "label"}}),
         Values::Null(v.Sd({}))},
        {"sbs", QX_SBS_PTR, kStd, 0, nullptr, v.Object(QX_SBS_PTR, W32(0))},
    };
    for (int type = QX_INT32_ARRAY; type <= QX_SD_PTR_ARRAY; ++type) {
        const auto array = static_cast<qx_data_type_t>(type);
        columns.push_back({v.Name("a" + std::to_string(type)), array, kStd, 0,
                           type == QX_SD_PTR_ARRAY ? v.Definition({{QX_INT64, "big"}}) : nullptr,
                           Values::Null(v.Array(array, {}))});
    }
    columns.push_back({"tail", QX_CHAR_PTR, kStd, 0, nullptr, Values::Null(v.Text(""))});
    // `seed` varies lengths so that forms fall at every alignment.
    auto row = [&](const std::string &key, int seed) {
        const std::string n(static_cast<size_t>(seed % 5), 'x');
        const qx_uint32_t u = static_cast<qx_uint32_t>(seed);
        return std::vector<V>{
            v.Text(key),
            v.Text("text" + n),
            v.I32(-seed),
            v.U32(3u + u),
            v.Num(QX_INT64, -9000000000000ll * seed),
            v.Num(QX_UINT64, (1ull << 63) + u),
            v.Num(QX_FLOAT32, 1.5f * static_cast<float>(seed)),
            v.Num(QX_FLOAT64, -2.25 * seed),
            v.Binary("\x01\x02\x03" + n),
            v.Handle(100u * u),
            v.Sd({v.I32(42 + seed), v.Text("label" + n)}),
            v.Object(QX_SBS_PTR, W32(3 + n.size()) + "sbs" + n),
            v.Array(QX_INT32_ARRAY, {v.I32(1), v.I32(-2 - seed)}),
            v.Array(QX_UINT32_ARRAY, {v.U32(0xFFFFFFFFu)}),
            v.Array(QX_INT64_ARRAY, {v.Num(QX_INT64, 4ll), v.Num(QX_INT64, 5ll)}),
            v.Array(QX_UINT64_ARRAY, {}),
            v.Array(QX_FLOAT32_ARRAY, {v.Num(QX_FLOAT32, 0.5f)}),
            v.Array(QX_FLOAT64_ARRAY, {v.Num(QX_FLOAT64, 2.5), v.Num(QX_FLOAT64, -1.0)}),
            v.Array(QX_CHAR_PTR_ARRAY, {v.Text("p"), v.Text("qr" + n), v.Text("")}),
            v.Array(QX_BINARY_PTR_ARRAY, {v.Binary("\x09"), v.Binary(n)}),
            v.Array(QX_RSRC_HANDLE_PTR_ARRAY, {v.Handle(6), v.Handle(11)}),
            v.Array(QX_SD_PTR_ARRAY, {v.Sd({v.Num(QX_INT64, 77ll)}),
                                      v.Sd({v.Num(QX_INT64, static_cast<qx_int64_t>(seed))})}),
            v.Text(n)};
    };
    const std::vector<V> a = row("a", 1), b = row("bee", 2);
    std::vector<V> a2 = a;
    a2[1] = v.Text("changed!");

    std::string golden = MetadataRecord(columns) + CommitRecord(1, false);
    const size_t a_at = golden.size();
    golden += RowRecord(0, a);
    const size_t b_at = golden.size();
    golden += RowRecord(0, b) + CommitRecord(2, false);
    const size_t a2_at = golden.size();
    golden += RowRecord(a_at, a2) + CommitRecord(3, false);
    golden += Record(3, W32(1) + W32(b_at)) + CommitRecord(4, true, "odd");
    const std::string committed = golden;
    // The uncommitted tail: a deletion and its commit record.
    golden += Record(3, W32(1) + W32(a2_at)) + CommitRecord(5, true, "odd");

    std::vector<sr_column_t> definitions;
    std::vector<qx_char_ptr_t> names;
    for (const Column &c : columns) {
        names.push_back(const_cast<char *>(c.p_name));
        definitions.push_back({names.back(), c.type, c.qualifier, c.properties, c.p_definition,
                               c.default_value.value});
    }
    sr_opaque_handle_t t = Create("/m/g", definitions, 6);
    EXPECT_EQ(ReadBytes(File("g")), MetadataRecord(columns) + CommitRecord(1));
    for (std::vector<V> row : {a, b}) {
        std::vector<qx_value_t *> values;
        for (V &x : row) values.push_back(&x.value);
        ASSERT_EQ(sr_add_row_1(t, names.data(), values.data(), qx_uint32_t(names.size())), 0);
    }
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    ASSERT_EQ(sr_set_field_by_key_1(t, a[0].value, Text("s"), &a2[1].value), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    ASSERT_EQ(sr_delete_row_by_index_1(t, 1), 0);
    alignas(8) char metadata[16] = {};
    std::memcpy(metadata, (W32(3) + "odd").data(), 7);
    ASSERT_EQ(sr_set_application_metadata_1(t, reinterpret_cast<qx_binary_t *>(metadata)), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    EXPECT_EQ(ReadBytes(File("g")), committed);
    ASSERT_EQ(sr_delete_row_by_index_1(t, 0), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    EXPECT_EQ(ReadBytes(File("g")), golden);
    ASSERT_EQ(sr_abort_1(t), 0);
    ASSERT_EQ(sr_close_table_1(t), 0);

    qxtest::WriteBytes(File("h"), golden);
    sr_opaque_handle_t h = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/h"), SR_MODE_READ, &h), 0);
    qx_binary_t *p_application = nullptr;
    ASSERT_EQ(sr_get_application_metadata_1(h, &p_application), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(p_application->data), p_application->length),
              "odd");
    std::free(p_application);

    // Packed: name (its file's), fixed metadata, columns (structured defaults as UINT32 0), rows.
    std::vector<V> described;
    for (const Column &c : columns) {
        const bool sd = c.type == QX_SD_PTR || c.type == QX_SD_PTR_ARRAY;
        const qx_uint32_t fields = c.p_definition ? c.p_definition->number_of_fields : 0;
        std::vector<V> elements = {v.Text(c.p_name),
                                   v.U32(c.type),
                                   v.U32(c.qualifier),
                                   v.I32(c.properties),
                                   sd ? v.U32(0) : c.default_value,
                                   v.U32(fields)};
        std::vector<V> types, field_names;
        for (qx_uint32_t f = 0; f < fields; ++f) {
            types.push_back(v.U32(c.p_definition->field_def[f].type));
            field_names.push_back(v.Text(c.p_definition->field_def[f].name));
        }
        if (fields != 0) elements.push_back(v.Array(QX_UINT32_ARRAY, types));
        if (fields != 0) elements.push_back(v.Array(QX_CHAR_PTR_ARRAY, field_names));
        described.push_back(v.Sd(elements));
    }
    const std::vector<V> record = {
        v.Object(QX_BINARY_PTR, RowRecord(0, a2) + std::string(4, '\0'))};
    const std::string area = SlotsAndForms(std::vector<V>{
        v.Text(File("h")),
        v.Sd({v.Text("/m/h"), v.U32(1), v.U32(static_cast<qx_uint32_t>(columns.size())),
              v.Num(QX_UINT64, 4ull), v.I32(0)}),
        v.Array(QX_SD_PTR_ARRAY, described),
        v.Object(QX_BINARY_PTR, W32(1) + W32(0) + SlotsAndForms(record, 16))});
    const std::string packed = W32(40 + area.size()) + std::string("\x00\x01\x02\x00", 4) +
                               Bytes(0ull) + Bytes(1ull) + Bytes(uint64_t(40 + area.size())) +
                               Bytes(1ull) + area;
    qx_uint32_t view = 0;
    void *p_buffer = nullptr;
    ASSERT_EQ(sr_pack_tables_1(1, &h, &view, nullptr, nullptr, &p_buffer), 0);
    EXPECT_EQ(std::string(static_cast<char *>(p_buffer), packed.size()), packed);
    std::free(p_buffer);
    ASSERT_EQ(sr_close_table_1(h), 0);
    // The golden buffer, unpacked at an odd address, reads back every value.
    std::string copy = " " + packed;
    ASSERT_EQ(sr_unpack_table_1(copy.data() + 1, 0, nullptr, nullptr, tree_, 0, &h), 0);
    ExpectRow(h, columns, a2);
    ASSERT_EQ(sr_close_table_1(h), 0);
}

}  // namespace
