/*
 * pmsg_bench.cpp - cost of building protocol forms and of reading them back
 * as client values, per type.
 *
 * Values are of a typical row's size: 32-character texts, 64-byte binaries,
 * arrays of 8 elements, structured data of 4 elements (one of them text).
 * BM_Build writes one value into an area (the add/set path); BM_Read reads it
 * back as the registry's readers do (flags 0: in place, or the cached value);
 * BM_ReadCallerOwned builds a malloc'd value each time (the unpack path);
 * BM_ReadConverted reads text through a Latin-1 from-table handle.
 */
#include <benchmark/benchmark.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "qx_pmsg.h"

namespace {

/* Owns one example value of every type. */
class Examples {
  public:
    Examples() {
        text_ = std::string(32, 't');
        binary_.resize(QX_BINARY_SIZE(64) / 8 + 1);
        auto *p_binary = reinterpret_cast<qx_binary_t *>(binary_.data());
        p_binary->length = 64;
        memset(p_binary->data, 0xB5, 64);
        sbs_.resize(12);
        auto *p_sbs = reinterpret_cast<qx_sbs_t *>(sbs_.data());
        p_sbs->length = 64;
        handle_ = qx_resource_handle_t{1, {2, 3, 4, 5}};
        sd_.resize(QX_SD_SIZE(4) / 8);
        auto *p_sd = reinterpret_cast<qx_structured_data_t *>(sd_.data());
        p_sd->element_count = 4;
        p_sd->elements[0] = {QX_CHAR_PTR, 0, {}};
        p_sd->elements[0].value.ptr_char = text_.data();
        p_sd->elements[1] = {QX_UINT32, 0, {}};
        p_sd->elements[2] = {QX_UINT64, 0, {}};
        p_sd->elements[3] = {QX_INT32, 0, {}};
        for (int type = QX_INT32_ARRAY; type <= QX_SD_PTR_ARRAY; type++) {
            auto &storage = arrays_[type - QX_INT32_ARRAY];
            storage.resize(QX_ARRAY_SIZE(8) / 8);
            auto *p_array = reinterpret_cast<qx_array_t *>(storage.data());
            p_array->element_count = 8;
            for (int i = 0; i < 8; i++) p_array->elements[i] = scalar_or_pointer(type - 11);
        }
    }

    qx_value_t value(int type) {
        if (type >= QX_INT32_ARRAY) {
            qx_value_t v;
            v.ptr_array = reinterpret_cast<qx_array_t *>(arrays_[type - QX_INT32_ARRAY].data());
            return v;
        }
        return scalar_or_pointer(type);
    }

  private:
    qx_value_t scalar_or_pointer(int type) {
        qx_value_t v;
        v.val_uint64 = 0x0102030405060708ull;
        switch (type) {
            case QX_CHAR_PTR:
                v.ptr_char = text_.data();
                break;
            case QX_BINARY_PTR:
                v.ptr_binary = reinterpret_cast<qx_binary_t *>(binary_.data());
                break;
            case QX_RSRC_HANDLE_PTR:
                v.ptr_rsrc_handle = &handle_;
                break;
            case QX_SD_PTR:
                v.ptr_sd = reinterpret_cast<qx_structured_data_t *>(sd_.data());
                break;
            case QX_SBS_PTR:
                v.ptr_sbs = reinterpret_cast<qx_sbs_t *>(sbs_.data());
                break;
            default:
                break;
        }
        return v;
    }

    std::string text_;
    std::vector<uint64_t> binary_;
    std::vector<uint64_t> sbs_;
    qx_resource_handle_t handle_;
    std::vector<uint64_t> sd_;
    std::vector<uint64_t> arrays_[10];
};

Examples &examples() {
    static Examples e;
    return e;
}

/* A value built into an 8-aligned area of its own. */
struct BuiltValue {
    explicit BuiltValue(int type, cu_iconv_t *p_handle = nullptr) {
        qx_value_t value = examples().value(type);
        qx_uint32_t size = 0;
        qx_pmsg_size_conv_protocol_value_1(p_handle, 0, static_cast<qx_data_type_t>(type), &value,
                                           &size);
        area.resize(size / 8 + 1);
        qx_uint32_t running = 0;
        qx_pmsg_build_conv_protocol_value_1(p_handle, 0, static_cast<qx_data_type_t>(type), &value,
                                            &slot, area.data(), size, &running);
        used = running;
    }
    std::vector<uint64_t> area;
    qx_pmsg_value_t slot{};
    qx_uint32_t used = 0;
};

void BM_Build(benchmark::State &state) {
    const int type = static_cast<int>(state.range(0));
    qx_value_t value = examples().value(type);
    std::vector<uint64_t> area(4096);
    qx_pmsg_value_t slot;
    for (auto _ : state) {
        qx_uint32_t running = 0;
        int rc = qx_pmsg_build_conv_protocol_value_1(nullptr, 0, static_cast<qx_data_type_t>(type),
                                                     &value, &slot, area.data(), 32768, &running);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(slot);
    }
    state.SetLabel(std::to_string(BuiltValue(type).used) + " bytes");
}

void BM_Read(benchmark::State &state) {
    const int type = static_cast<int>(state.range(0));
    BuiltValue built(type);
    for (auto _ : state) {
        qx_value_t back;
        int rc = qx_pmsg_build_conv_packed_client_value_1(
            nullptr, 0, static_cast<qx_data_type_t>(type), &back, &built.slot, built.area.data(),
            built.used);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(back);
    }
    qx_pmsg_release_client_values_1(&built.slot, sizeof built.slot);
}

void BM_ReadCallerOwned(benchmark::State &state) {
    const int type = static_cast<int>(state.range(0));
    BuiltValue built(type);
    for (auto _ : state) {
        qx_value_t back;
        int rc = qx_pmsg_build_conv_packed_client_value_1(
            nullptr, QX_PMSG_CLIENT_MALLOC, static_cast<qx_data_type_t>(type), &back, &built.slot,
            built.area.data(), built.used);
        benchmark::DoNotOptimize(rc);
        free(back.ptr_char);
    }
}

/* Text through a real Latin-1 conversion, first read and cached reads. */
void BM_ReadConverted(benchmark::State &state) {
    locale_t latin1 = newlocale(LC_ALL_MASK, "en_US.iso88591", nullptr);
    if (latin1 == nullptr) {
        state.SkipWithError("no en_US.iso88591 locale");
        return;
    }
    locale_t previous = uselocale(latin1);
    cu_locale_info_t *p_info = nullptr;
    cu_get_locale_info_1(&p_info);
    cu_iconv_t *p_from = nullptr;
    cu_iconv_open_1(p_info, CU_ICONV_FROM_TABLE, &p_from);
    cu_rel_locale_info_1(p_info);
    const bool cached = state.range(0) != 0;
    BuiltValue built(QX_CHAR_PTR);
    for (auto _ : state) {
        qx_value_t back;
        int rc = qx_pmsg_build_conv_packed_client_value_1(
            p_from, cached ? 0 : QX_PMSG_CLIENT_MALLOC, QX_CHAR_PTR, &back, &built.slot,
            built.area.data(), built.used);
        benchmark::DoNotOptimize(rc);
        if (!cached) free(back.ptr_char);
    }
    qx_pmsg_release_client_values_1(&built.slot, sizeof built.slot);
    cu_iconv_close_1(p_from);
    uselocale(previous);
    freelocale(latin1);
}

void AllTypes(benchmark::internal::Benchmark *b) {
    for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) b->Arg(type);
}

BENCHMARK(BM_Build)->Apply(AllTypes);
BENCHMARK(BM_Read)->Apply(AllTypes);
BENCHMARK(BM_ReadCallerOwned)->DenseRange(QX_CHAR_PTR, QX_SD_PTR_ARRAY);
BENCHMARK(BM_ReadConverted)->Arg(0)->Arg(1);

}  // namespace
