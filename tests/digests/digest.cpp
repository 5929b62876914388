#include "digest.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>

#include "hardware/cpu/dispatch.h"
#include "support/tensors.h"
#include "utils/error.h"

namespace ornik::digests {

namespace {

template <typename T>
void make_nan_one(std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(T)) {
        T value;
        std::memcpy(&value, &bytes[at], sizeof(T));
        if (std::isnan(value)) {
            value = std::numeric_limits<T>::quiet_NaN();
            std::memcpy(&bytes[at], &value, sizeof(T));
        }
    }
}

// A generator that needs nothing of the library (splitmix64).
std::uint64_t next_word(std::uint64_t& state) {
    std::uint64_t z = state += 0x9e3779b97f4a7c15;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

double between(double low, double high, std::uint64_t& state) {
    return low + (high - low) * (static_cast<double>(next_word(state) >> 11) * 0x1p-53);
}

// Those that functions stumble over.
template <typename T>
std::vector<T> special_numbers() {
    using Limits = std::numeric_limits<T>;
    std::vector<T> list{T(0), T(1), T(2), T(7), T(3), Limits::max(), Limits::lowest(), Limits::min()};
    if constexpr (std::is_signed_v<T>) {
        list.insert(list.end(), {-T(0), T(-1), T(-3)});
    }
    if constexpr (std::is_floating_point_v<T>) {
        list.insert(list.end(), {Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), Limits::denorm_min(),
                                 T(0.5), T(-0.5), Limits::epsilon(), T(88.5)});
    }
    return list;
}

template <typename T>
void fill(T* items, std::size_t count, double low, double high, bool special, std::uint64_t state) {
    const std::vector<T> first = special ? special_numbers<T>() : std::vector<T>();
    for (std::size_t i = 0; i < count; ++i) {
        if (i < first.size()) {
            items[i] = first[i];
        } else if (special && i % 2 == 0) {
            const std::uint64_t word = next_word(state);
            std::memcpy(&items[i], &word, sizeof(T));
        } else {
            items[i] = static_cast<T>(between(std::is_unsigned_v<T> ? 0 : low, high, state));
        }
    }
}

}  // namespace

void Digest::add_bytes(const void* bytes, std::size_t count) {
    for (const auto* at = static_cast<const unsigned char*>(bytes); count > 0; ++at, --count) {
        state_ = (state_ ^ *at) * 0x100000001b3;
    }
}

void Digest::add(const std::string& text) { add_bytes(text.data(), text.size()); }

void Digest::add(const Tensor* t) {
    if (t == nullptr || t->getRawData() == nullptr) {
        add("nothing");
        return;
    }
    const std::int64_t dtype = t->Dtype();
    std::string bytes = t->Size() > 0 ? test::bytes_of(t) : "";
    if (dtype == dtype::float32 || dtype == dtype::complex64) {
        make_nan_one<float>(bytes);
    } else if (dtype == dtype::float64 || dtype == dtype::complex128) {
        make_nan_one<double>(bytes);
    }
    add(std::to_string(dtype) + shape_text(t->Shape()));
    add(bytes);
}

void Digest::add(const KTensor& t) {
    if (t.defined()) {
        add(t.tensor());
    } else {
        add("undefined");
    }
}

std::string dtype_text(std::int64_t dtype) {
    return std::string(detail::dtype_table[static_cast<std::size_t>(dtype)].name);
}

KTensor numbers(const Dims& shape, std::int64_t dtype, double low, double high, bool special, std::uint64_t seed) {
    KTensor t = KTensor::empty(shape, dtype);
    const auto count = static_cast<std::size_t>(t.size());
    void* data = t.tensor()->getRawData();
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        if constexpr (std::is_same_v<T, bool>) {
            std::generate_n(static_cast<bool*>(data), count, [&] { return next_word(seed) % 2 == 0; });
        } else if constexpr (!std::is_arithmetic_v<T>) {
            fill(static_cast<decltype(T().real)*>(data), 2 * count, low, high, special, seed);
        } else {
            const double scale = std::is_integral_v<T> ? 50 : 1;
            fill(static_cast<T*>(data), count, scale * low, scale * high, special, seed);
        }
    });
    return t;
}

void add_outcome(Digest& digest, const std::function<KTensor()>& compute) {
    try {
        digest.add(compute());
    } catch (const Error&) {
        digest.add("refused");
    }
}

}  // namespace ornik::digests
