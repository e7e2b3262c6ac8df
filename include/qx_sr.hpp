/* qx_sr.hpp - C++20 wrapper of the table store's C interface (header only).
 *
 *   auto tree = qx::sr::Tree::open();                  // Result<Tree>
 *   tree->mount("/app", "/var/lib/app");
 *   auto table = tree->create_table("/app/people",
 *       {{"id", QX_INT32, SR_PRIMARY_KEY}, {"name", QX_CHAR_PTR}});
 *   table->add({{"id", 1}, {"name", "Ada"}});
 *   auto name = table->get<std::string>(1, "name");  // Result<std::string>
 *   for (auto row : table->rows()) { ... row.get<std::int32_t>("id") ... }
 *
 * Every handle is owned by one object and closed by its destructor.  Calls
 * return a Result (or Status) carrying the library's result code and its
 * formatted message.  Nothing here throws of its own, and no exception can
 * cross into the C library; only the standard containers' std::bad_alloc
 * may leave a call that is not noexcept (inside one it ends the process).
 * Memory the values a caller writes need comes from malloc; when there is
 * none, the call returns SR_E_NO_MEMORY.  Values
 * read from a table are copied out, so they stay valid after the row
 * changes or the table closes.
 */
#ifndef QX_SR_HPP
#define QX_SR_HPP

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "qx_cu.h"
#include "qx_sr.h"

namespace qx::sr {

/* ---------------------------------------------------------------------------
 * Results.
 */

// A failed call: the library's result code (SR_E_*) and its message.
struct Error {
    qx_int32_t code = 0;
    std::string message;
};

namespace detail {

// The calling thread's error record as text (the library keeps one per
// thread; the call that failed has just set it).
inline Error last_error(qx_int32_t code) noexcept {
    Error error{code, {}};
    cu_error_t *p_error = nullptr;
    char *p_message = nullptr;
    if (cu_get_error_1(&p_error) == 0 && p_error != nullptr && p_error->cu_error_id != 0 &&
        cu_get_errmsg_1(p_error, &p_message) == 0 && p_message != nullptr) {
        error.message = p_message;
        while (!error.message.empty() && error.message.back() == '\n') error.message.pop_back();
    }
    cu_rel_errmsg_1(p_message);
    cu_rel_error_1(p_error);
    if (error.message.empty()) error.message = "failed with result " + std::to_string(code);
    return error;
}

}  // namespace detail

// A value or an Error, in the manner of std::expected.
template <class T>
class [[nodiscard]] Result {
  public:
    Result(T value) noexcept(std::is_nothrow_move_constructible_v<T>)  // NOLINT: implicit
        : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) noexcept : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const noexcept { return state_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }
    // The value; only when ok().
    T &value() &noexcept { return *std::get_if<0>(&state_); }
    const T &value() const &noexcept { return *std::get_if<0>(&state_); }
    T &&value() &&noexcept { return std::move(*std::get_if<0>(&state_)); }
    T &operator*() &noexcept { return value(); }
    const T &operator*() const &noexcept { return value(); }
    T *operator->() noexcept { return std::get_if<0>(&state_); }
    const T *operator->() const noexcept { return std::get_if<0>(&state_); }
    template <class U>
    T value_or(U &&fallback) const & {
        return ok() ? value() : static_cast<T>(std::forward<U>(fallback));
    }
    // The result code: 0 when ok().
    qx_int32_t code() const noexcept { return ok() ? 0 : std::get_if<1>(&state_)->code; }
    // The library's message; empty when ok().
    std::string_view message() const noexcept {
        return ok() ? std::string_view() : std::string_view(std::get_if<1>(&state_)->message);
    }
    // The error; a code of 0 when ok().
    const Error &error() const noexcept {
        static const Error none{};
        return ok() ? none : *std::get_if<1>(&state_);
    }

  private:
    std::variant<T, Error> state_;
};

// The result of a call that returns nothing but success or an Error.
class [[nodiscard]] Status {
  public:
    Status() noexcept = default;
    Status(Error error) noexcept : error_(std::move(error)) {}  // NOLINT: implicit
    // A result code as a Status, with the library's message when it failed.
    static Status of(qx_int32_t code) noexcept {
        return code == 0 ? Status() : Status(detail::last_error(code));
    }
    bool ok() const noexcept { return error_.code == 0; }
    explicit operator bool() const noexcept { return ok(); }
    qx_int32_t code() const noexcept { return error_.code; }
    std::string_view message() const noexcept { return error_.message; }
    const Error &error() const noexcept { return error_; }

  private:
    Error error_;
};

/* ---------------------------------------------------------------------------
 * Values.  Supported C++ types and the column types they read and write:
 *   std::int32_t int32, std::uint32_t uint32, std::int64_t int64,
 *   std::uint64_t uint64, float float32, double float64, std::string string
 *   (const char * and std::string_view write too), Bytes binary, and
 *   std::vector of any of the numbers or of std::string for their arrays.
 */

using Bytes = std::vector<std::uint8_t>;

namespace detail {

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};

template <class T>
struct Scalar;
template <>
struct Scalar<std::int32_t> {
    static constexpr qx_data_type_t type = QX_INT32, array = QX_INT32_ARRAY;
    static std::int32_t read(const qx_value_t &v) noexcept { return v.val_int32; }
    static void write(qx_value_t &v, std::int32_t x) noexcept { v.val_int32 = x; }
};
template <>
struct Scalar<std::uint32_t> {
    static constexpr qx_data_type_t type = QX_UINT32, array = QX_UINT32_ARRAY;
    static std::uint32_t read(const qx_value_t &v) noexcept { return v.val_uint32; }
    static void write(qx_value_t &v, std::uint32_t x) noexcept { v.val_uint32 = x; }
};
template <>
struct Scalar<std::int64_t> {
    static constexpr qx_data_type_t type = QX_INT64, array = QX_INT64_ARRAY;
    static std::int64_t read(const qx_value_t &v) noexcept { return v.val_int64; }
    static void write(qx_value_t &v, std::int64_t x) noexcept { v.val_int64 = x; }
};
template <>
struct Scalar<std::uint64_t> {
    static constexpr qx_data_type_t type = QX_UINT64, array = QX_UINT64_ARRAY;
    static std::uint64_t read(const qx_value_t &v) noexcept { return v.val_uint64; }
    static void write(qx_value_t &v, std::uint64_t x) noexcept { v.val_uint64 = x; }
};
template <>
struct Scalar<float> {
    static constexpr qx_data_type_t type = QX_FLOAT32, array = QX_FLOAT32_ARRAY;
    static float read(const qx_value_t &v) noexcept { return v.val_float32; }
    static void write(qx_value_t &v, float x) noexcept { v.val_float32 = x; }
};
template <>
struct Scalar<double> {
    static constexpr qx_data_type_t type = QX_FLOAT64, array = QX_FLOAT64_ARRAY;
    static double read(const qx_value_t &v) noexcept { return v.val_float64; }
    static void write(qx_value_t &v, double x) noexcept { v.val_float64 = x; }
};

template <class T>
concept ScalarType = requires {
    Scalar<T>::type;
};

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {
    using element = T;
};

// The column type a C++ type reads and writes (QX_UNKNOWN: not supported).
template <class T>
constexpr qx_data_type_t type_of() noexcept {
    if constexpr (ScalarType<T>) {
        return Scalar<T>::type;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return QX_CHAR_PTR;
    } else if constexpr (std::is_same_v<T, Bytes>) {
        return QX_BINARY_PTR;
    } else if constexpr (IsVector<T>::value) {
        using E = typename IsVector<T>::element;
        if constexpr (ScalarType<E>) {
            return Scalar<E>::array;
        } else if constexpr (std::is_same_v<E, std::string>) {
            return QX_CHAR_PTR_ARRAY;
        } else {
            return QX_UNKNOWN;
        }
    } else {
        return QX_UNKNOWN;
    }
}

// A copy of a value the library returned, as T.
template <class T>
T copy_out(const qx_value_t &v) {
    if constexpr (ScalarType<T>) {
        return Scalar<T>::read(v);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return v.ptr_char != nullptr ? std::string(v.ptr_char) : std::string();
    } else if constexpr (std::is_same_v<T, Bytes>) {
        if (v.ptr_binary == nullptr) return Bytes();
        return Bytes(v.ptr_binary->data, v.ptr_binary->data + v.ptr_binary->length);
    } else {
        using E = typename IsVector<T>::element;
        T out;
        if (v.ptr_array == nullptr) return out;
        for (qx_uint32_t i = 0; i < v.ptr_array->element_count; ++i) {
            out.push_back(copy_out<E>(v.ptr_array->elements[i]));
        }
        return out;
    }
}

}  // namespace detail

// A value to write: a qx_value_t and the memory its pointers lead to
// (shared by copies, never changed after construction).
class Value {
  public:
    Value() noexcept = default;
    template <detail::ScalarType T>
    Value(T x) noexcept : type_(detail::Scalar<T>::type) {  // NOLINT: implicit
        detail::Scalar<T>::write(value_, x);
    }
    Value(const char *text) : Value(std::string_view(text)) {}         // NOLINT: implicit
    Value(const std::string &text) : Value(std::string_view(text)) {}  // NOLINT: implicit
    Value(std::string_view text) : type_(QX_CHAR_PTR) {                // NOLINT: implicit
        char *p = static_cast<char *>(reserve(text.size() + 1));
        if (p == nullptr) return;
        if (!text.empty()) std::memcpy(p, text.data(), text.size());
        p[text.size()] = '\0';
        value_.ptr_char = p;
    }
    Value(const Bytes &bytes) : type_(QX_BINARY_PTR) {  // NOLINT: implicit
        auto *p = static_cast<qx_binary_t *>(reserve(QX_BINARY_SIZE(bytes.size())));
        if (p == nullptr) return;
        p->length = static_cast<qx_uint32_t>(bytes.size());
        if (!bytes.empty()) std::memcpy(p->data, bytes.data(), bytes.size());
        value_.ptr_binary = p;
    }
    template <detail::ScalarType T>
    Value(const std::vector<T> &items) : type_(detail::Scalar<T>::array) {  // NOLINT: implicit
        qx_array_t *p = array(items.size(), 0);
        if (p == nullptr) return;
        for (size_t i = 0; i < items.size(); ++i)
            detail::Scalar<T>::write(p->elements[i], items[i]);
    }
    Value(const std::vector<std::string> &items) : type_(QX_CHAR_PTR_ARRAY) {  // NOLINT: implicit
        size_t text = 0;
        for (const std::string &s : items) text += s.size() + 1;
        qx_array_t *p = array(items.size(), text);
        if (p == nullptr) return;
        char *out = reinterpret_cast<char *>(p) + QX_ARRAY_SIZE(items.size());
        for (size_t i = 0; i < items.size(); ++i) {
            std::memcpy(out, items[i].c_str(), items[i].size() + 1);
            p->elements[i].ptr_char = out;
            out += items[i].size() + 1;
        }
    }
    // Any other value, as the C interface has it (its memory stays the
    // caller's).
    static Value raw(qx_data_type_t type, qx_value_t value) noexcept {
        Value v;
        v.type_ = type;
        v.value_ = value;
        return v;
    }

    qx_data_type_t type() const noexcept { return type_; }
    const qx_value_t &get() const noexcept { return value_; }
    qx_value_t *pointer() noexcept { return &value_; }
    // False when the memory for the value could not be had.
    bool valid() const noexcept { return !failed_; }

  private:
    void *reserve(size_t bytes) noexcept {
        void *p = std::calloc(1, bytes == 0 ? 1 : bytes);
        failed_ = p == nullptr;
        if (p != nullptr) storage_.reset(p, detail::FreeDeleter());
        return p;
    }
    qx_array_t *array(size_t count, size_t extra) noexcept {
        auto *p = static_cast<qx_array_t *>(reserve(QX_ARRAY_SIZE(count) + extra));
        if (p != nullptr) p->element_count = static_cast<qx_uint32_t>(count);
        value_.ptr_array = p;
        return p;
    }

    qx_data_type_t type_ = QX_UNKNOWN;
    qx_value_t value_{};
    std::shared_ptr<void> storage_;
    bool failed_ = false;
};

// One column's value in an add or a set.
struct Field {
    std::string name;
    Value value;
};

// A column of a new table.
struct ColumnDef {
    std::string name;
    qx_data_type_t type = QX_INT32;
    sr_qualifier_t qualifier = SR_STANDARD;
    Value default_value{};
    const sr_sd_def_t *sd = nullptr;  // the layout of an sd column
};

enum class Mode : qx_int32_t {
    read = SR_MODE_READ,
    write = SR_MODE_WRITE,
    explicit_control = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL,
};

// Which version of the rows a read sees.
enum class View : qx_uint32_t { committed = 0, uncommitted = 1 };

class Table;

namespace detail {

inline Error no_memory() {
    return Error{SR_E_NO_MEMORY, "out of memory"};
}

// sr_get_selected_rows_v_1 wants a va_list; an expression without `$`
// items has no arguments to pass.
inline qx_int32_t selected_rows(sr_opaque_handle_t handle, char *p_expression,
                                qx_uint32_t uncommitted, qx_uint32_t *p_count,
                                qx_uint32_t **p_p_rows, ...) noexcept {
    va_list ap;
    va_start(ap, p_p_rows);
    qx_int32_t rc =
        sr_get_selected_rows_v_1(handle, p_expression, ap, uncommitted, p_count, p_p_rows);
    va_end(ap);
    return rc;
}

}  // namespace detail

/* ---------------------------------------------------------------------------
 * Rows.
 */

// One row of a table, by packed or fixed index; reads go to the table when
// asked for.
class Row {
  public:
    enum class By { packed, fixed };
    Row(const Table *table, By by, qx_int32_t index, View view) noexcept
        : table_(table), by_(by), index_(index), view_(view) {}

    template <class T>
    Result<T> get(std::string_view column) const;
    // The index this row was reached by (packed for rows(), fixed for a
    // selection).
    qx_int32_t index() const noexcept { return index_; }
    By by() const noexcept { return by_; }

  private:
    const Table *table_;
    By by_;
    qx_int32_t index_;
    View view_;
};

// The rows of a table in packed order, in one view.  Deleted rows of the
// committed view are skipped; iteration ends at the first index past the
// last row (or at a read that fails: check Table::size() for that).
class RowRange {
  public:
    class iterator {
      public:
        using value_type = Row;
        using difference_type = std::ptrdiff_t;
        iterator() noexcept = default;
        iterator(const RowRange *range, qx_int32_t index) noexcept : range_(range), index_(index) {
            settle();
        }
        Row operator*() const noexcept {
            return Row(range_->table_, Row::By::packed, index_, range_->view_);
        }
        iterator &operator++() noexcept {
            ++index_;
            settle();
            return *this;
        }
        iterator operator++(int) noexcept {
            iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const iterator &other) const noexcept { return index_ == other.index_; }

      private:
        void settle() noexcept;
        const RowRange *range_ = nullptr;
        qx_int32_t index_ = -1;
    };

    RowRange(const Table *table, View view) noexcept : table_(table), view_(view) {}
    iterator begin() const noexcept { return iterator(this, 0); }
    iterator end() const noexcept { return iterator(); }

  private:
    const Table *table_;
    View view_;
};

// The rows an expression chose, by fixed index, in the view it was made in.
class Selection {
  public:
    class iterator {
      public:
        using value_type = Row;
        using difference_type = std::ptrdiff_t;
        iterator() noexcept = default;
        iterator(const Selection *s, size_t i) noexcept : selection_(s), i_(i) {}
        Row operator*() const noexcept {
            return Row(selection_->table_, Row::By::fixed,
                       static_cast<qx_int32_t>(selection_->indices_[i_]), selection_->view_);
        }
        iterator &operator++() noexcept {
            ++i_;
            return *this;
        }
        iterator operator++(int) noexcept {
            iterator old = *this;
            ++i_;
            return old;
        }
        bool operator==(const iterator &other) const noexcept { return i_ == other.i_; }

      private:
        const Selection *selection_ = nullptr;
        size_t i_ = 0;
    };

    Selection(const Table *table, View view, std::vector<qx_uint32_t> indices) noexcept
        : table_(table), view_(view), indices_(std::move(indices)) {}
    iterator begin() const noexcept { return iterator(this, 0); }
    iterator end() const noexcept { return iterator(this, indices_.size()); }
    size_t size() const noexcept { return indices_.size(); }
    bool empty() const noexcept { return indices_.empty(); }
    const std::vector<qx_uint32_t> &fixed_indices() const noexcept { return indices_; }

  private:
    const Table *table_;
    View view_;
    std::vector<qx_uint32_t> indices_;
};

/* ---------------------------------------------------------------------------
 * Tables and transactions.
 */

class Transaction;

class Table {
  public:
    // Takes ownership of a handle from the C interface.
    explicit Table(sr_opaque_handle_t handle = nullptr) noexcept : handle_(handle) {}
    Table(Table &&other) noexcept
        : handle_(std::exchange(other.handle_, nullptr)), columns_(std::move(other.columns_)) {}
    Table &operator=(Table &&other) noexcept {
        if (this != &other) {
            (void)close();
            handle_ = std::exchange(other.handle_, nullptr);
            columns_ = std::move(other.columns_);
        }
        return *this;
    }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    ~Table() { (void)close(); }

    // Closes the table now; uncommitted changes are dropped.
    Status close() noexcept {
        if (handle_ == nullptr) return Status();
        return Status::of(sr_close_table_1(std::exchange(handle_, nullptr)));
    }
    sr_opaque_handle_t handle() const noexcept { return handle_; }

    // The number of rows and the column names.
    Result<std::uint32_t> size() const {
        sr_table_metadata_t *p = nullptr;
        qx_int32_t rc = sr_get_table_metadata_1(handle_, 0, &p);
        if (rc != 0) return detail::last_error(rc);
        std::uint32_t rows = p->number_of_rows;
        sr_free_table_metadata_1(p);
        return rows;
    }
    Result<std::vector<std::string>> columns() const {
        if (Status s = load_columns(); !s) return s.error();
        std::vector<std::string> names;
        for (const auto &c : columns_) names.push_back(c.name);
        return names;
    }

    Status add(std::initializer_list<Field> fields) { return add(fields.begin(), fields.size()); }
    Status add(const std::vector<Field> &fields) { return add(fields.data(), fields.size()); }

    // One field of the row with key `key`.
    template <class T, class K>
    Result<T> get(const K &key, std::string_view column, View view = View::committed) const {
        Value k(key);
        if (!k.valid()) return detail::no_memory();
        if (Status s = check_key(k); !s) return s.error();
        if (Status s = check_type(column, detail::type_of<T>()); !s) return s.error();
        std::string name(column);
        qx_value_t v{};
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        qx_int32_t rc = sr_get_field_by_key_and_visibility_1(
            handle_, k.get(), name.data(), &v, static_cast<qx_uint32_t>(view), &state);
        if (rc != 0) return detail::last_error(rc);
        return detail::copy_out<T>(v);
    }

    // Sets one field of the row with key `key`.
    template <class K>
    Status set(const K &key, std::string_view column, const Value &value) {
        Value k(key);
        if (!k.valid() || !value.valid()) return detail::no_memory();
        if (Status s = check_key(k); !s) return s;
        if (Status s = check_write(column, value.type()); !s) return s;
        std::string name(column);
        qx_value_t v = value.get();
        return Status::of(sr_set_field_by_key_1(handle_, k.get(), name.data(), &v));
    }

    // Deletes the rows an expression matches (values as literals).
    Status erase(std::string_view expression) {
        std::string e(expression);
        return Status::of(sr_delete_rows_1(handle_, e.data()));
    }

    RowRange rows(View view = View::committed) const noexcept { return RowRange(this, view); }

    // The rows an expression (values written as literals, no `$` items)
    // matches; an empty expression matches every row.
    Result<Selection> select(std::string_view expression, View view = View::committed) const {
        std::string e(expression);
        qx_uint32_t count = 0;
        qx_uint32_t *p_rows = nullptr;
        qx_int32_t rc = detail::selected_rows(handle_, e.empty() ? nullptr : e.data(),
                                              static_cast<qx_uint32_t>(view), &count, &p_rows);
        if (rc != 0) return detail::last_error(rc);
        std::vector<qx_uint32_t> indices(p_rows, p_rows + count);
        std::free(p_rows);
        return Selection(this, view, std::move(indices));
    }

    // A transaction on this table (opened under explicit control): commit()
    // applies and commits; leaving scope without it aborts.
    Transaction transaction() noexcept;

    // Reads one field of a row by packed or fixed index (what Row uses).
    template <class T>
    Result<T> read(Row::By by, qx_int32_t index, std::string_view column, View view) const {
        if (Status s = check_type(column, detail::type_of<T>()); !s) return s.error();
        std::string name(column);
        qx_value_t v{};
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        qx_int32_t rc =
            by == Row::By::packed
                ? sr_get_field_by_index_and_visibility_1(handle_, index, name.data(), &v,
                                                         static_cast<qx_uint32_t>(view), &state)
                : sr_get_field_by_fixed_index_and_visibility_1(
                      handle_, index, name.data(), &v, static_cast<qx_uint32_t>(view), &state);
        if (rc != 0) return detail::last_error(rc);
        return detail::copy_out<T>(v);
    }
    // The state of a row by packed index in a view: SR_E_NO_ROW_FOR_INDEX
    // past the last row, SR_E_ROW_DELETED for a row the view does not hold.
    qx_int32_t probe(qx_int32_t index, View view) const noexcept {
        if (load_columns().code() != 0 || columns_.empty()) return SR_E_NO_ROW_FOR_INDEX;
        qx_value_t v{};
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        return sr_get_field_by_index_and_visibility_1(handle_, index, columns_[0].name.data(), &v,
                                                      static_cast<qx_uint32_t>(view), &state);
    }

  private:
    Status add(const Field *fields, size_t count) {
        std::vector<char *> names;
        std::vector<qx_value_t> values;
        std::vector<qx_value_t *> pointers;
        for (size_t i = 0; i < count; ++i) {
            if (!fields[i].value.valid()) return detail::no_memory();
            if (Status s = check_write(fields[i].name, fields[i].value.type()); !s) return s;
            names.push_back(const_cast<char *>(fields[i].name.c_str()));
            values.push_back(fields[i].value.get());
        }
        for (qx_value_t &v : values) pointers.push_back(&v);
        return Status::of(
            sr_add_row_1(handle_, names.data(), pointers.data(), static_cast<qx_uint32_t>(count)));
    }
    Status load_columns() const {
        if (!columns_.empty()) return Status();
        sr_table_metadata_t *p = nullptr;
        qx_int32_t rc = sr_get_table_metadata_1(handle_, -1, &p);
        if (rc != 0) return detail::last_error(rc);
        for (qx_uint32_t c = 0; c < p->number_of_columns; ++c) {
            const sr_column_t &d = p->column_definitions[c];
            qx_uint32_t base = d.qualifier & SR_QUALIFIER_BASE_MASK;
            columns_.push_back(
                {d.name, d.type, base == SR_PRIMARY_KEY || base == SR_PRIMARY_KEY_NOCHECK});
        }
        sr_free_table_metadata_1(p);
        return Status();
    }
    struct ColumnInfo {
        std::string name;
        qx_data_type_t type;
        bool key;
    };
    // The column named `column` (nullptr when none), looking again once
    // when the table's columns may have changed since they were read.
    const ColumnInfo *find_column(std::string_view column, qx_data_type_t wanted,
                                  Status *p_status) const {
        const ColumnInfo *found = nullptr;
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (attempt == 1) columns_.clear();
            if (*p_status = load_columns(); !p_status->ok()) return nullptr;
            found = nullptr;
            for (const ColumnInfo &c : columns_) {
                if (c.name == column) found = &c;
            }
            if (found != nullptr && found->type == wanted) break;
        }
        return found;
    }
    static Error wrong_type(const std::string &name) {
        return Error{SR_E_INVALID_COLUMN,
                     "column \"" + name + "\" does not hold values of the type given"};
    }
    // A read as T of a column of another type would misread its bytes.
    Status check_type(std::string_view column, qx_data_type_t wanted) const {
        Status status;
        const ColumnInfo *c = find_column(column, wanted, &status);
        if (!status) return status;
        if (c == nullptr)
            return Error{SR_E_INVALID_COLUMN, "no column \"" + std::string(column) + "\""};
        return c->type == wanted ? Status() : wrong_type(c->name);
    }
    // So would a write: the library would take an integer for a pointer.
    // An unknown column is left to the library to report.
    Status check_write(std::string_view column, qx_data_type_t given) const {
        if (given == QX_UNKNOWN) return Status();  // an empty Value: all zero
        Status status;
        const ColumnInfo *c = find_column(column, given, &status);
        if (!status) return status;
        return c == nullptr || c->type == given ? Status() : wrong_type(c->name);
    }
    Status check_key(const Value &key) const {
        if (Status s = load_columns(); !s) return s;
        for (const ColumnInfo &c : columns_) {
            if (c.key) return check_write(c.name, key.type());
        }
        return Status();
    }

    sr_opaque_handle_t handle_;
    mutable std::vector<ColumnInfo> columns_;
};

// Changes to one explicitly controlled table that become the committed
// state all together, or not at all.
class [[nodiscard]] Transaction {
  public:
    explicit Transaction(Table &table) noexcept : handle_(table.handle()) {}
    Transaction(Transaction &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Transaction &operator=(Transaction &&) = delete;
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    ~Transaction() { (void)abort(); }

    // Writes the changes to the table file and makes them the committed
    // state.  After a failure the changes are aborted.
    Status commit() noexcept {
        if (handle_ == nullptr) return Error{SR_E_INVALID_HANDLE, "the transaction has ended"};
        qx_int32_t rc = sr_apply_1(handle_, 0);
        if (rc == 0) rc = sr_commit_1(handle_);
        if (rc != 0) {
            Status failed = Status::of(rc);
            (void)abort();
            return failed;
        }
        handle_ = nullptr;
        return Status();
    }
    // Throws the changes away (also what leaving scope does).
    Status abort() noexcept {
        if (handle_ == nullptr) return Status();
        return Status::of(sr_abort_1(std::exchange(handle_, nullptr)));
    }

  private:
    sr_opaque_handle_t handle_;
};

inline Transaction Table::transaction() noexcept {
    return Transaction(*this);
}

template <class T>
Result<T> Row::get(std::string_view column) const {
    return table_->template read<T>(by_, index_, column, view_);
}

inline void RowRange::iterator::settle() noexcept {
    if (range_ == nullptr) return;
    for (;;) {
        qx_int32_t rc = range_->table_->probe(index_, range_->view_);
        if (rc == SR_E_ROW_DELETED) {
            ++index_;
            continue;
        }
        if (rc != 0) index_ = -1;  // the end
        return;
    }
}

/* ---------------------------------------------------------------------------
 * Trees.
 */

class Tree {
  public:
    explicit Tree(sr_opaque_handle_t handle = nullptr) noexcept : handle_(handle) {}
    Tree(Tree &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Tree &operator=(Tree &&other) noexcept {
        if (this != &other) {
            (void)close();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;
    // Closing a tree closes every table still open through it: close (or
    // destroy) the Table objects first.
    ~Tree() { (void)close(); }

    static Result<Tree> open(qx_uint32_t retries = 0, qx_uint64_t timeout = 0) noexcept {
        sr_opaque_handle_t handle = nullptr;
        qx_int32_t rc = sr_open_tree_1(&handle, retries, timeout);
        if (rc != 0) return detail::last_error(rc);
        return Tree(handle);
    }
    Status close() noexcept {
        if (handle_ == nullptr) return Status();
        return Status::of(sr_close_tree_1(std::exchange(handle_, nullptr)));
    }
    sr_opaque_handle_t handle() const noexcept { return handle_; }

    Status mount(std::string_view registry_path, std::string_view directory, bool create = true) {
        std::string p(registry_path), d(directory);
        return Status::of(sr_mount_local_tree_1(handle_, p.data(), d.data(), create ? 1 : 0));
    }
    Status unmount(std::string_view registry_path) {
        std::string p(registry_path);
        return Status::of(sr_unmount_local_tree_1(handle_, p.data()));
    }

    Result<Table> create_table(std::string_view path, std::initializer_list<ColumnDef> columns,
                               Mode mode = Mode::write) {
        return create_table(path, std::vector<ColumnDef>(columns), mode);
    }
    Result<Table> create_table(std::string_view path, const std::vector<ColumnDef> &columns,
                               Mode mode = Mode::write) {
        std::vector<sr_column_t> defs(columns.size());
        for (size_t i = 0; i < columns.size(); ++i) {
            if (!columns[i].default_value.valid()) return detail::no_memory();
            qx_data_type_t given = columns[i].default_value.type();
            if (given != QX_UNKNOWN && given != columns[i].type) {
                return Error{SR_E_INVALID_COLUMN, "the default of column \"" + columns[i].name +
                                                      "\" is not of the column's type"};
            }
            defs[i].name = const_cast<char *>(columns[i].name.c_str());
            defs[i].type = columns[i].type;
            defs[i].qualifier = columns[i].qualifier;
            defs[i].sd_defn = const_cast<sr_sd_def_t *>(columns[i].sd);
            defs[i].default_value = columns[i].default_value.get();
        }
        std::string p(path);
        sr_opaque_handle_t handle = nullptr;
        qx_int32_t rc =
            sr_create_table_1(handle_, p.data(), defs.data(), static_cast<qx_uint32_t>(defs.size()),
                              static_cast<qx_int32_t>(mode), &handle);
        if (rc != 0) return detail::last_error(rc);
        return Table(handle);
    }
    Result<Table> open_table(std::string_view path, Mode mode = Mode::write) {
        std::string p(path);
        sr_opaque_handle_t handle = nullptr;
        qx_int32_t rc = sr_open_table_1(handle_, p.data(), static_cast<qx_int32_t>(mode), &handle);
        if (rc != 0) return detail::last_error(rc);
        return Table(handle);
    }
    Status delete_table(std::string_view path) {
        std::string p(path);
        return Status::of(sr_delete_table_1(handle_, p.data()));
    }
    // The tables under a registry path.
    Result<std::vector<std::string>> list(std::string_view path) {
        std::string p(path);
        qx_char_ptr_t *p_list = nullptr;
        qx_uint32_t count = 0;
        qx_int32_t rc = sr_list_tables_1(handle_, p.data(), &p_list, &count);
        if (rc != 0) return detail::last_error(rc);
        std::vector<std::string> names(p_list, p_list + count);
        sr_free_table_list_1(p_list, count);
        return names;
    }

  private:
    sr_opaque_handle_t handle_;
};

}  // namespace qx::sr

#endif  // QX_SR_HPP
