// Golden files: table files and a packed buffer assembled here byte by byte
// from the format (record headers, 32-byte column entries, values end to
// end in their protocol forms), never through the library.  The library
// reads each back value for value, and, doing the same operations, writes
// exactly those bytes.
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
using qxtest::WriteBytes;

// Where two byte strings first differ (the shorter one's end included), or
// -1 when they are equal: a readable failure for a few kilobytes of bytes.
long FirstDifference(const std::string &a, const std::string &b) {
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        if (a[i] != b[i]) return static_cast<long>(i);
    }
    return a.size() == b.size() ? -1 : static_cast<long>(n);
}

std::string W32(qx_uint32_t v) {
    return std::string(reinterpret_cast<const char *>(&v), 4);
}
std::string W64(qx_uint64_t v) {
    return std::string(reinterpret_cast<const char *>(&v), 8);
}
std::string Slot(const qx_value_t &v) {
    return std::string(reinterpret_cast<const char *>(&v), 8);
}

// A value as a caller passes it and as the format stores it: the 8-byte slot
// of a scalar, or the protocol form of a pointer type (its anchor is placed
// when the enclosing record or form is assembled).
// All 8 bytes of the slot start as zero: `{}` on a union sets only its first
// member, and the format's slot of a 4-byte value is zero behind it.
struct V {
    V() { std::memset(&value, 0, sizeof value); }
    qx_data_type_t type = QX_UNKNOWN;
    qx_value_t value;
    bool pointer = false;
    std::string form;
};

// Builds caller values (kept alive here) and their forms.
class Values {
  public:
    V Scalar(qx_data_type_t type, qx_uint64_t bits) {
        V v;
        v.type = type;
        v.value.val_uint64 = bits;
        return v;
    }
    V I32(qx_int32_t x) {
        V v;
        v.type = QX_INT32;
        v.value.val_int32 = x;
        return v;
    }
    V F32(float x) {
        V v;
        v.type = QX_FLOAT32;
        v.value.val_float32 = x;
        return v;
    }
    V F64(double x) {
        V v;
        v.type = QX_FLOAT64;
        v.value.val_float64 = x;
        return v;
    }
    V Text(const std::string &s) {
        V v = Pointer(QX_CHAR_PTR, s + '\0');
        v.value.ptr_char = Keep(s.c_str(), s.size() + 1);
        return v;
    }
    V Binary(const std::string &bytes) {
        std::string object = W32(static_cast<qx_uint32_t>(bytes.size())) + bytes;
        V v = Pointer(QX_BINARY_PTR, object);
        v.value.ptr_binary = reinterpret_cast<qx_binary_t *>(Keep(object.data(), object.size()));
        return v;
    }
    V Sbs(const std::string &bytes) {
        std::string object = W32(static_cast<qx_uint32_t>(bytes.size())) + bytes;
        V v = Pointer(QX_SBS_PTR, object);
        v.value.ptr_sbs = reinterpret_cast<qx_sbs_t *>(Keep(object.data(), object.size()));
        return v;
    }
    V Handle(qx_uint32_t first) {
        std::string object;
        for (qx_uint32_t i = 0; i < 5; ++i) object += W32(first + i);
        V v = Pointer(QX_RSRC_HANDLE_PTR, object);
        v.value.ptr_rsrc_handle =
            reinterpret_cast<qx_resource_handle_t *>(Keep(object.data(), object.size()));
        return v;
    }
    // count, 0, then 8-byte slots (scalars) or anchors followed by the
    // elements' forms end to end, anchors counting from the array's start.
    V Array(qx_data_type_t type, const std::vector<V> &elements) {
        auto *p_array = reinterpret_cast<qx_array_t *>(Zeroed(QX_ARRAY_SIZE(elements.size())));
        p_array->element_count = static_cast<qx_uint32_t>(elements.size());
        std::string head = W32(p_array->element_count) + W32(0);
        std::string tail;
        const size_t base = 8 + 8 * elements.size();
        for (size_t i = 0; i < elements.size(); ++i) {
            p_array->elements[i] = elements[i].value;
            if (elements[i].pointer) {
                head += W32(static_cast<qx_uint32_t>(base + tail.size())) +
                        W32(static_cast<qx_uint32_t>(elements[i].form.size()));
                tail += elements[i].form;
            } else {
                head += Slot(elements[i].value);
            }
        }
        V v = Pointer(type, head + tail);
        v.value.ptr_array = p_array;
        return v;
    }
    // count, 0, then per element its type, 0 and its slot or anchor; then
    // the nested forms end to end.
    V Sd(const std::vector<V> &elements) {
        auto *p_sd = reinterpret_cast<qx_structured_data_t *>(Zeroed(QX_SD_SIZE(elements.size())));
        p_sd->element_count = static_cast<qx_uint32_t>(elements.size());
        std::string head = W32(p_sd->element_count) + W32(0);
        std::string tail;
        const size_t base = 8 + 16 * elements.size();
        for (size_t i = 0; i < elements.size(); ++i) {
            p_sd->elements[i].data_type = elements[i].type;
            p_sd->elements[i].value = elements[i].value;
            head += W32(static_cast<qx_uint32_t>(elements[i].type)) + W32(0);
            if (elements[i].pointer) {
                head += W32(static_cast<qx_uint32_t>(base + tail.size())) +
                        W32(static_cast<qx_uint32_t>(elements[i].form.size()));
                tail += elements[i].form;
            } else {
                head += Slot(elements[i].value);
            }
        }
        V v = Pointer(QX_SD_PTR, head + tail);
        v.value.ptr_sd = p_sd;
        return v;
    }
    char *Name(const std::string &s) { return Keep(s.c_str(), s.size() + 1); }
    sr_sd_def_t *Definition(const std::vector<std::pair<qx_data_type_t, std::string>> &fields) {
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(
            Zeroed(sizeof(sr_sd_def_t) + fields.size() * sizeof(sr_sd_field_def_t)));
        p_def->number_of_fields = static_cast<qx_uint32_t>(fields.size());
        for (size_t f = 0; f < fields.size(); ++f) {
            p_def->field_def[f].type = fields[f].first;
            p_def->field_def[f].name = Name(fields[f].second);
        }
        return p_def;
    }

  private:
    static V Pointer(qx_data_type_t type, const std::string &form) {
        V v;
        v.type = type;
        v.pointer = true;
        v.form = form;
        return v;
    }
    char *Keep(const void *p, size_t n) {
        char *p_copy = Zeroed(n);
        std::memcpy(p_copy, p, n);
        return p_copy;
    }
    char *Zeroed(size_t n) {
        blocks_.emplace_back(new char[n + 8]());
        return blocks_.back().get();
    }
    std::vector<std::unique_ptr<char[]>> blocks_;
};

// Slots then indirect forms, end to end in column order.
std::string SlotsAndForms(const std::vector<V> &values) {
    std::string slots;
    std::string forms;
    for (const V &v : values) {
        if (v.pointer) {
            slots += W32(static_cast<qx_uint32_t>(forms.size())) +
                     W32(static_cast<qx_uint32_t>(v.form.size()));
            forms += v.form;
        } else {
            slots += Slot(v.value);
        }
    }
    return slots + forms;
}

std::string Record(qx_int32_t type, const std::string &data) {
    return W32(static_cast<qx_uint32_t>(12 + data.size())) + W32(0) +
           W32(static_cast<qx_uint32_t>(type)) + data;
}

std::string RowRecord(qx_uint32_t replaces_offset, const std::vector<V> &values) {
    return Record(2, W32(replaces_offset) + SlotsAndForms(values));
}

std::string CommitRecord(qx_uint64_t counter,
                         const std::vector<std::pair<qx_uint32_t, std::string>> &metadata = {}) {
    std::string data = W64(counter);
    if (!metadata.empty()) {
        data += W32(static_cast<qx_uint32_t>(metadata.size()));
        for (const auto &e : metadata) {
            data += W32(e.first) + W32(static_cast<qx_uint32_t>(e.second.size())) + e.second;
        }
    }
    return Record(-1, W32(static_cast<qx_uint32_t>(data.size())) + data);
}

qx_uint32_t ByteOrderFlag() {
    const qx_uint16_t probe = 0xFEFF;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 0xFE ? 1 : 0;
}

struct Column {
    const char *p_name;
    qx_data_type_t type;
    qx_uint32_t qualifier;
    qx_int32_t properties;
    sr_sd_def_t *p_definition;
    V default_value;
};

// The metadata record: flag, 0, counts, 32-byte entries, then the defaults
// of the pointer columns, the names and the structured-data definitions.
std::string MetadataRecord(const std::vector<Column> &columns) {
    std::string defaults;
    std::string names;
    std::string definitions;
    std::vector<qx_uint32_t> default_at(columns.size()), name_at(columns.size()),
        definition_at(columns.size());
    qx_uint32_t variable = 0;
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].default_value.pointer) {
            default_at[i] = static_cast<qx_uint32_t>(defaults.size());
            defaults += columns[i].default_value.form;
            ++variable;
        }
    }
    for (size_t i = 0; i < columns.size(); ++i) {
        name_at[i] = static_cast<qx_uint32_t>(defaults.size() + names.size());
        names += std::string(columns[i].p_name) + '\0';
    }
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].p_definition == nullptr) continue;
        definition_at[i] =
            static_cast<qx_uint32_t>(defaults.size() + names.size() + definitions.size());
        definitions += W32(columns[i].p_definition->number_of_fields);
        for (qx_uint32_t f = 0; f < columns[i].p_definition->number_of_fields; ++f) {
            const sr_sd_field_def_t &field = columns[i].p_definition->field_def[f];
            definitions += W32(static_cast<qx_uint32_t>(field.type)) + field.name + '\0';
        }
    }
    std::string data = W32(ByteOrderFlag()) + W32(0) +
                       W32(static_cast<qx_uint32_t>(columns.size())) + W32(variable);
    for (size_t i = 0; i < columns.size(); ++i) {
        const Column &c = columns[i];
        data += W32(name_at[i]) + W32(static_cast<qx_uint32_t>(c.type)) + W32(c.qualifier) +
                W32(static_cast<qx_uint32_t>(c.properties)) + W32(definition_at[i]) + W32(0);
        data +=
            c.default_value.pointer
                ? W32(default_at[i]) + W32(static_cast<qx_uint32_t>(c.default_value.form.size()))
                : Slot(c.default_value.value);
    }
    return Record(1, data + defaults + names + definitions);
}

std::vector<sr_column_t> Definitions(const std::vector<Column> &columns) {
    std::vector<sr_column_t> result;
    for (const Column &c : columns) {
        sr_column_t d{};
        d.name = const_cast<char *>(c.p_name);
        d.type = c.type;
        d.qualifier = c.qualifier;
        d.properties = c.properties;
        d.sd_defn = c.p_definition;
        // Pointer defaults that are NULL stand for the empty value.
        d.default_value = c.default_value.value;
        result.push_back(d);
    }
    return result;
}

// The protocol form of a value the library handed out, by the value library.
std::string FormOf(qx_data_type_t type, const qx_value_t &value) {
    qx_uint32_t size = 0;
    EXPECT_EQ(qx_pmsg_size_conv_protocol_value_1(nullptr, 0, type, &value, &size), 0);
    std::string area(size + 1, '\0');
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    EXPECT_EQ(qx_pmsg_build_conv_protocol_value_1(nullptr, 0, type, &value, &slot, area.data(),
                                                  size + 1, &running),
              0);
    area.resize(running);
    return area;
}

class GoldenFileTest : public qxtest::TableTest {
  protected:
    // Every column type (2..22), a string key and a string column with
    // defaults, structured data with definitions.
    std::vector<Column> AllTypes() {
        sr_sd_def_t *p_sd = vals_.Definition({{QX_INT32, "n"}, {QX_CHAR_PTR, "label"}});
        sr_sd_def_t *p_sds = vals_.Definition({{QX_INT64, "big"}});
        const qx_uint32_t kStd = SR_STANDARD;
        V empty_text = vals_.Text("");
        empty_text.value.ptr_char = nullptr;  // NULL: stored as the empty value
        V empty_binary = vals_.Binary("");
        empty_binary.value.ptr_binary = nullptr;
        V invalid_handle;
        invalid_handle.type = QX_RSRC_HANDLE_PTR;
        invalid_handle.pointer = true;
        invalid_handle.form.assign(reinterpret_cast<const char *>(cu_ptr_invld_rsrc_hndl_1), 20);
        auto empty_array = [&](qx_data_type_t type) {
            V v = vals_.Array(type, {});
            v.value.ptr_array = nullptr;
            return v;
        };
        V empty_sd = vals_.Sd({});
        empty_sd.value.ptr_sd = nullptr;
        V empty_sbs = vals_.Sbs("");
        return {
            {"k", QX_CHAR_PTR, SR_PRIMARY_KEY, 11, nullptr, vals_.Text("key?")},
            {"s", QX_CHAR_PTR, kStd | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED, -1, nullptr,
             vals_.Text("default text")},
            {"i32", QX_INT32, kStd, 0, nullptr, vals_.I32(-7)},
            {"u32", QX_UINT32, kStd | SR_PROTECTED, 0, nullptr, vals_.Scalar(QX_UINT32, 7)},
            {"i64", QX_INT64, kStd, 0, nullptr, vals_.Scalar(QX_INT64, 1ull << 40)},
            {"u64", QX_UINT64, kStd, 0, nullptr, vals_.Scalar(QX_UINT64, ~0ull)},
            {"f32", QX_FLOAT32, kStd, 0, nullptr, vals_.F32(0.25f)},
            {"f64", QX_FLOAT64, kStd, 0, nullptr, vals_.F64(-1.5)},
            {"bin", QX_BINARY_PTR, kStd, 0, nullptr, empty_binary},
            {"rh", QX_RSRC_HANDLE_PTR, kStd, 0, nullptr, invalid_handle},
            {"sd", QX_SD_PTR, kStd, 0, p_sd, empty_sd},
            {"sbs", QX_SBS_PTR, kStd, 0, nullptr, empty_sbs},
            {"ai32", QX_INT32_ARRAY, kStd, 0, nullptr, empty_array(QX_INT32_ARRAY)},
            {"au32", QX_UINT32_ARRAY, kStd, 0, nullptr, empty_array(QX_UINT32_ARRAY)},
            {"ai64", QX_INT64_ARRAY, kStd, 0, nullptr, empty_array(QX_INT64_ARRAY)},
            {"au64", QX_UINT64_ARRAY, kStd, 0, nullptr, empty_array(QX_UINT64_ARRAY)},
            {"af32", QX_FLOAT32_ARRAY, kStd, 0, nullptr, empty_array(QX_FLOAT32_ARRAY)},
            {"af64", QX_FLOAT64_ARRAY, kStd, 0, nullptr, empty_array(QX_FLOAT64_ARRAY)},
            {"acp", QX_CHAR_PTR_ARRAY, kStd, 0, nullptr, empty_array(QX_CHAR_PTR_ARRAY)},
            {"abin", QX_BINARY_PTR_ARRAY, kStd, 0, nullptr, empty_array(QX_BINARY_PTR_ARRAY)},
            {"arh", QX_RSRC_HANDLE_PTR_ARRAY, kStd, 0, nullptr,
             empty_array(QX_RSRC_HANDLE_PTR_ARRAY)},
            {"asd", QX_SD_PTR_ARRAY, kStd, 0, p_sds, empty_array(QX_SD_PTR_ARRAY)},
            {"tail", QX_CHAR_PTR, kStd, 0, nullptr, empty_text},
        };
    }

    // One row of every column; `seed` varies lengths and contents so that
    // forms fall at every alignment.
    std::vector<V> Row(const std::string &key, int seed) {
        const std::string n(static_cast<size_t>(seed % 5), 'x');
        return {
            vals_.Text(key),
            vals_.Text("text" + n),
            vals_.I32(-seed),
            vals_.Scalar(QX_UINT32, 3u + static_cast<qx_uint32_t>(seed)),
            vals_.Scalar(QX_INT64, static_cast<qx_uint64_t>(-9000000000000ll * seed)),
            vals_.Scalar(QX_UINT64, (1ull << 63) + static_cast<qx_uint64_t>(seed)),
            vals_.F32(1.5f * static_cast<float>(seed)),
            vals_.F64(-2.25 * seed),
            vals_.Binary("\x01\x02\x03" + n),
            vals_.Handle(100u * static_cast<qx_uint32_t>(seed)),
            vals_.Sd({vals_.I32(42 + seed), vals_.Text("label" + n)}),
            vals_.Sbs("sbs" + n),
            vals_.Array(QX_INT32_ARRAY, {vals_.I32(1), vals_.I32(-2 - seed)}),
            vals_.Array(QX_UINT32_ARRAY, {vals_.Scalar(QX_UINT32, 0xFFFFFFFFu)}),
            vals_.Array(QX_INT64_ARRAY, {vals_.Scalar(QX_INT64, 4), vals_.Scalar(QX_INT64, 5)}),
            vals_.Array(QX_UINT64_ARRAY, {}),
            vals_.Array(QX_FLOAT32_ARRAY, {vals_.F32(0.5f)}),
            vals_.Array(QX_FLOAT64_ARRAY, {vals_.F64(2.5), vals_.F64(-1)}),
            vals_.Array(QX_CHAR_PTR_ARRAY, {vals_.Text("p"), vals_.Text("qr" + n), vals_.Text("")}),
            vals_.Array(QX_BINARY_PTR_ARRAY, {vals_.Binary("\x09"), vals_.Binary(n)}),
            vals_.Array(QX_RSRC_HANDLE_PTR_ARRAY, {vals_.Handle(6), vals_.Handle(11)}),
            vals_.Array(QX_SD_PTR_ARRAY,
                        {vals_.Sd({vals_.Scalar(QX_INT64, 77)}),
                         vals_.Sd({vals_.Scalar(QX_INT64, static_cast<qx_uint64_t>(seed))})}),
            vals_.Text(n),
        };
    }

    qx_int32_t AddRow(sr_opaque_handle_t table, const std::vector<Column> &columns,
                      const std::vector<V> &row) {
        std::vector<qx_char_ptr_t> names;
        std::vector<qx_value_t> values;
        for (size_t i = 0; i < columns.size(); ++i) {
            names.push_back(const_cast<char *>(columns[i].p_name));
            values.push_back(row[i].value);
        }
        std::vector<qx_value_t *> pointers;
        for (qx_value_t &v : values) pointers.push_back(&v);
        return sr_add_row_1(table, names.data(), pointers.data(),
                            static_cast<qx_uint32_t>(names.size()));
    }

    // Every column of the row with this key reads back as `row`.
    void ExpectRow(sr_opaque_handle_t table, const std::vector<Column> &columns,
                   const std::vector<V> &row) {
        qx_value_t key = row[0].value;
        for (size_t i = 0; i < columns.size(); ++i) {
            qx_value_t got;
            std::memset(&got, 0, sizeof got);
            ASSERT_EQ(
                sr_get_field_by_key_1(table, key, const_cast<char *>(columns[i].p_name), &got), 0)
                << columns[i].p_name;
            if (row[i].pointer) {
                EXPECT_EQ(FormOf(columns[i].type, got), row[i].form) << columns[i].p_name;
            } else {
                EXPECT_EQ(Slot(got), Slot(row[i].value)) << columns[i].p_name;
            }
        }
    }

    Values vals_;
};

// A table of every type through its life: create, two rows, an update, a
// deletion with odd-length application metadata, and an apply left
// uncommitted.
TEST_F(GoldenFileTest, TableFileOfEveryTypeIsWrittenAndReadByteForByte) {
    const std::vector<Column> columns = AllTypes();
    const std::vector<V> a = Row("a", 1);
    const std::vector<V> b = Row("bee", 2);
    std::vector<V> a2 = a;
    a2[1] = vals_.Text("changed!");

    // The file, from the format.
    std::string golden = MetadataRecord(columns);
    const qx_uint32_t c1 = static_cast<qx_uint32_t>(golden.size());
    golden += CommitRecord(1);
    golden.replace(c1 + 8, 4, W32(0));  // switched off by the first commit
    const qx_uint32_t a_at = static_cast<qx_uint32_t>(golden.size());
    golden += RowRecord(0, a);
    const qx_uint32_t b_at = static_cast<qx_uint32_t>(golden.size());
    golden += RowRecord(0, b);
    const qx_uint32_t c2 = static_cast<qx_uint32_t>(golden.size());
    golden += CommitRecord(2);
    golden.replace(c2 + 8, 4, W32(0));
    const qx_uint32_t a2_at = static_cast<qx_uint32_t>(golden.size());
    golden += RowRecord(a_at, a2);
    const qx_uint32_t c3 = static_cast<qx_uint32_t>(golden.size());
    golden += CommitRecord(3);
    golden.replace(c3 + 8, 4, W32(0));
    golden += Record(3, W32(1) + W32(b_at));
    golden += CommitRecord(4, {{0, "odd"}});
    const std::string committed = golden;
    // The uncommitted tail: a deletion of the updated row and its commit
    // record, after the valid one.
    golden += Record(3, W32(1) + W32(a2_at));
    golden += CommitRecord(5, {{0, "odd"}});

    // The library, doing the same.
    std::vector<sr_column_t> definitions = Definitions(columns);
    sr_opaque_handle_t t = nullptr;
    ASSERT_EQ(sr_create_table_1(tree_, Text("/m/g"), definitions.data(),
                                static_cast<qx_uint32_t>(definitions.size()), 6, &t),
              0);
    EXPECT_EQ(FirstDifference(ReadBytes(File("g")), MetadataRecord(columns) + CommitRecord(1)), -1);
    ASSERT_EQ(AddRow(t, columns, a), 0);
    ASSERT_EQ(AddRow(t, columns, b), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    ASSERT_EQ(sr_set_field_by_key_1(t, a[0].value, Text("s"), &a2[1].value), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    ASSERT_EQ(sr_delete_row_by_index_1(t, 1), 0);
    alignas(8) char metadata[16] = {};
    const qx_uint32_t three = 3;
    std::memcpy(metadata, &three, 4);
    std::memcpy(metadata + 4, "odd", 3);
    ASSERT_EQ(sr_set_application_metadata_1(t, reinterpret_cast<qx_binary_t *>(metadata)), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    ASSERT_EQ(sr_commit_1(t), 0);
    EXPECT_EQ(FirstDifference(ReadBytes(File("g")), committed), -1);
    ASSERT_EQ(sr_delete_row_by_index_1(t, 0), 0);
    ASSERT_EQ(sr_apply_1(t, 0), 0);
    EXPECT_EQ(FirstDifference(ReadBytes(File("g")), golden), -1);
    ASSERT_EQ(sr_abort_1(t), 0);
    ASSERT_EQ(sr_close_table_1(t), 0);

    // The golden bytes, read by the library: the committed state.
    WriteBytes(File("h"), golden);
    sr_opaque_handle_t h = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/h"), SR_MODE_READ, &h), 0);
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(h, 1, &p_metadata), 0);
    EXPECT_EQ(p_metadata->number_of_rows, 1u);
    ASSERT_EQ(p_metadata->number_of_columns, columns.size());
    EXPECT_EQ(p_metadata->table_change_counter, 4u);
    for (size_t i = 0; i < columns.size(); ++i) {
        const sr_column_t &c = p_metadata->column_definitions[i];
        EXPECT_STREQ(c.name, columns[i].p_name);
        EXPECT_EQ(c.type, columns[i].type);
        EXPECT_EQ(c.qualifier, columns[i].qualifier);
        EXPECT_EQ(c.properties, columns[i].properties);
        EXPECT_EQ(c.sd_defn != nullptr, columns[i].p_definition != nullptr) << c.name;
        if (columns[i].default_value.pointer) {
            EXPECT_EQ(FormOf(c.type, c.default_value), columns[i].default_value.form) << c.name;
        } else {
            EXPECT_EQ(Slot(c.default_value), Slot(columns[i].default_value.value)) << c.name;
        }
    }
    EXPECT_STREQ(p_metadata->column_definitions[10].sd_defn->field_def[1].name, "label");
    EXPECT_EQ(sr_free_table_metadata_1(p_metadata), 0);
    ExpectRow(h, columns, a2);
    qx_value_t ignored{};
    EXPECT_EQ(sr_get_field_by_key_1(h, b[0].value, Text("s"), &ignored), SR_E_NO_ROW_FOR_KEY);
    qx_binary_t *p_application = nullptr;
    ASSERT_EQ(sr_get_application_metadata_1(h, &p_application), 0);
    ASSERT_EQ(p_application->length, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(p_application->data), 3), "odd");
    std::free(p_application);
    ASSERT_EQ(sr_close_table_1(h), 0);
}

// Two tables in one packed buffer: the head slots, each table's name, fixed
// metadata, column metadata and rows, in the value forms, end to end.
TEST_F(GoldenFileTest, PackedBufferOfTwoTablesIsWrittenAndReadByteForByte) {
    sr_sd_def_t *p_def = vals_.Definition({{QX_INT32, "n"}, {QX_CHAR_PTR, "label"}});
    const std::vector<Column> first = {
        {"k", QX_INT32, SR_PRIMARY_KEY, 0, nullptr, vals_.I32(0)},
        {"s", QX_CHAR_PTR, SR_STANDARD, 4, nullptr, vals_.Text("dflt")},
        {"a", QX_INT64_ARRAY, SR_STANDARD, 0, nullptr, vals_.Array(QX_INT64_ARRAY, {})},
    };
    const std::vector<Column> second = {
        {"key", QX_CHAR_PTR, SR_PRIMARY_KEY_NOCHECK, 0, nullptr, vals_.Text("")},
        {"sd", QX_SD_PTR, SR_STANDARD | SR_INVISIBLE, 0, p_def, vals_.Sd({})},
    };
    const std::vector<std::vector<V>> first_rows = {
        {vals_.I32(1), vals_.Text("one"), vals_.Array(QX_INT64_ARRAY, {vals_.Scalar(QX_INT64, 9)})},
        {vals_.I32(2), vals_.Text("twenty"), vals_.Array(QX_INT64_ARRAY, {})},
    };
    const std::vector<std::vector<V>> second_rows = {
        {vals_.Text("only"), vals_.Sd({vals_.I32(5), vals_.Text("five")})},
    };

    // Column metadata: per column name, type, qualifier, properties, the
    // default (SD defaults travel as UINT32 0), the field count and, with a
    // definition, the fields' types and names.
    auto column_metadata = [&](const std::vector<Column> &columns) {
        std::vector<V> described;
        for (const Column &c : columns) {
            std::vector<V> elements = {
                vals_.Text(c.p_name), vals_.Scalar(QX_UINT32, static_cast<qx_uint32_t>(c.type)),
                vals_.Scalar(QX_UINT32, c.qualifier),
                vals_.Scalar(QX_INT32, static_cast<qx_uint32_t>(c.properties))};
            if (c.type == QX_SD_PTR || c.type == QX_SD_PTR_ARRAY) {
                elements.push_back(vals_.Scalar(QX_UINT32, 0));
            } else {
                elements.push_back(c.default_value);
            }
            const qx_uint32_t fields = c.p_definition ? c.p_definition->number_of_fields : 0;
            elements.push_back(vals_.Scalar(QX_UINT32, fields));
            if (c.p_definition != nullptr) {
                std::vector<V> types, names;
                for (qx_uint32_t f = 0; f < fields; ++f) {
                    types.push_back(vals_.Scalar(
                        QX_UINT32, static_cast<qx_uint32_t>(c.p_definition->field_def[f].type)));
                    names.push_back(vals_.Text(c.p_definition->field_def[f].name));
                }
                elements.push_back(vals_.Array(QX_UINT32_ARRAY, types));
                elements.push_back(vals_.Array(QX_CHAR_PTR_ARRAY, names));
            }
            described.push_back(vals_.Sd(elements));
        }
        return vals_.Array(QX_SD_PTR_ARRAY, described);
    };
    // Rows: binaries whose length word is the record's length and whose
    // bytes are the rest of the record and four zero bytes.
    auto rows_form = [&](const std::vector<std::vector<V>> &rows) {
        std::string head = W32(static_cast<qx_uint32_t>(rows.size())) + W32(0);
        std::string tail;
        const size_t base = 8 + 8 * rows.size();
        for (const auto &row : rows) {
            const std::string record = RowRecord(0, row);
            const std::string binary = record + std::string(4, '\0');
            head += W32(static_cast<qx_uint32_t>(base + tail.size())) +
                    W32(static_cast<qx_uint32_t>(binary.size()));
            tail += binary;
        }
        return head + tail;
    };
    auto fixed = [&](const char *p_name, qx_uint32_t rows, qx_uint32_t columns) {
        return vals_.Sd({vals_.Text(p_name), vals_.Scalar(QX_UINT32, rows),
                         vals_.Scalar(QX_UINT32, columns), vals_.Scalar(QX_UINT64, 2),
                         vals_.I32(0)});
    };
    // A persistent table's name is its file's; the fixed metadata names its
    // registry path.
    std::vector<std::string> forms = {
        vals_.Text(File("p")).form,   fixed("/m/p", 2, 3).form, column_metadata(first).form,
        rows_form(first_rows),        vals_.Text("/t").form,    fixed("/t", 1, 2).form,
        column_metadata(second).form, rows_form(second_rows),
    };
    std::string slots;
    std::string area;
    for (const std::string &form : forms) {
        slots +=
            W32(static_cast<qx_uint32_t>(area.size())) + W32(static_cast<qx_uint32_t>(form.size()));
        area += form;
    }
    const qx_uint32_t length = static_cast<qx_uint32_t>(40 + slots.size() + area.size());
    const std::string golden = W32(length) + std::string("\x00\x01\x02\x00", 4) + W64(0) + W64(1) +
                               W64(length) + W64(2) + slots + area;

    // The library packs the same two tables.
    std::vector<sr_column_t> d1 = Definitions(first);
    std::vector<sr_column_t> d2 = Definitions(second);
    sr_opaque_handle_t t1 = nullptr, t2 = nullptr;
    ASSERT_EQ(sr_create_table_1(tree_, Text("/m/p"), d1.data(), 3, 6, &t1), 0);
    ASSERT_EQ(sr_create_table_1(tree_, Text("/t"), d2.data(), 2, 6, &t2), 0);
    for (const auto &row : first_rows) ASSERT_EQ(AddRow(t1, first, row), 0);
    for (const auto &row : second_rows) ASSERT_EQ(AddRow(t2, second, row), 0);
    for (sr_opaque_handle_t t : {t1, t2}) {
        ASSERT_EQ(sr_apply_1(t, 0), 0);
        ASSERT_EQ(sr_commit_1(t), 0);
    }
    sr_opaque_handle_t tables[2] = {t1, t2};
    qx_uint32_t views[2] = {0, 0};
    void *p_buffer = nullptr;
    ASSERT_EQ(sr_pack_tables_1(2, tables, views, nullptr, nullptr, &p_buffer), 0);
    qx_uint32_t packed_length = 0;
    std::memcpy(&packed_length, p_buffer, 4);
    const std::string packed(static_cast<char *>(p_buffer), packed_length);
    EXPECT_EQ(FirstDifference(packed, golden), -1);
    std::free(p_buffer);

    // The golden buffer, unpacked at an odd address, reads back every value.
    std::string copy = " " + golden;
    char *p_golden = copy.data() + 1;
    sr_opaque_handle_t receiver = nullptr;
    ASSERT_EQ(sr_open_tree_1(&receiver, 0, 0), 0);
    qx_uint32_t total = 0;
    ASSERT_EQ(sr_get_total_packed_tables_1(p_golden, &total), 0);
    EXPECT_EQ(total, 2u);
    sr_opaque_handle_t u1 = nullptr, u2 = nullptr;
    ASSERT_EQ(sr_unpack_table_1(p_golden, 0, nullptr, nullptr, receiver, 0, &u1), 0);
    ASSERT_EQ(sr_unpack_table_1(p_golden, 0, nullptr, nullptr, receiver, 1, &u2), 0);
    for (const auto &row : first_rows) ExpectRow(u1, first, row);
    for (const auto &row : second_rows) ExpectRow(u2, second, row);
    ASSERT_EQ(sr_close_tree_1(receiver), 0);
}

}  // namespace
