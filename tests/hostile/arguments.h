// arguments.h: arguments of every type that the public functions take, good ones and hostile ones, picked by numbers.
//
// A call's picks are a list of numbers: 0 stands for the good argument that the table of functions names, all others
// for something else of the same type. Operands are made afresh for each call and freed with the World.
#pragma once

#include <algorithm>
#include <limits>
#include <map>
#include <sstream>

#include "support/tensors.h"
#include "tensor_headers.h"

namespace ornik::test {

/// The picks of one call, and what can be picked at each place.
class Picks {
  public:
    explicit Picks(std::vector<std::size_t> values = {}) : values_(std::move(values)) {}
    std::size_t next(std::size_t choices) {
        const std::size_t place = choices_.size();
        choices_.push_back(choices);
        return place < values_.size() ? values_[place] % choices : 0;
    }
    const std::vector<std::size_t>& values() const { return values_; }
    const std::vector<std::size_t>& choices() const { return choices_; }

  private:
    std::vector<std::size_t> values_;
    std::vector<std::size_t> choices_;
};

/// A tensor by its letter; shapes and dtypes of plain ones stand in tensor_of. Others: z transposed in memory, y
/// repeated by stride 0, e without elements, p a COO and h a CSR matrix. Hostile ones: 0 null, 1 no meta, 2 a shape
/// without a storage, 3 elements labelled sparse, 4 on a device that is not there, 5 the same without a storage, 6 a
/// sparse matrix without members, 7 many axes.
inline constexpr std::string_view letters = "xdcbkivfoasmtqrwlzyeugphjnNOBCEFMP01234567";

inline TensorPtr tensor_of(char letter) {
    const auto filled = [](const Dims& shape, std::int64_t dtype) {
        TensorPtr t(Tensor::empty(shape, 0, dtype));
        const TensorPtr values(Tensor::empty(shape, 0, dtype::float64));
        auto* items = static_cast<double*>(values->getRawData());
        for (std::int64_t n = 0; n < values->Size(); ++n) {
            items[n] = dtype < dtype::float32 ? static_cast<double>((n + 1) % 2)
                                              : 0.25 + 0.5 * static_cast<double>(n % 3 == 1);
        }
        t->copy_from_(values.get());
        return t;
    };
    const auto bare = [](const Dims& shape, std::int64_t device) {
        auto t = std::make_unique<Tensor>();
        t->init_tensor_without_alloc_data(shape, dtype::float32, device, layout::dense);
        return t;
    };
    using namespace dtype;
    static const std::map<char, std::pair<Dims, std::int64_t>> plain{
        {'x', {{2, 3}, float32}},       {'d', {{2, 3}, float64}},
        {'c', {{2, 3}, complex64}},     {'b', {{2, 3}, boolean}},
        {'k', {{2, 3}, int64}},         {'i', {{2}, int64}},
        {'v', {{3}, float32}},          {'f', {{6}, float32}},
        {'o', {{}, float32}},           {'a', {{}, int64}},
        {'s', {{3, 3}, float32}},       {'m', {{2, 2}, float32}},
        {'t', {{2, 3, 3}, float32}},    {'q', {{1, 4, 4, 4}, float32}},
        {'r', {{3, 3}, complex64}},     {'w', {{2, 3, 2}, float32}},
        {'l', {{1, 2, 3}, int64}},      {'u', {{1, 4, 2, 2}, int32}},
        {'g', {{1, 4, 2, 2}, float32}}, {'j', {{4, 4, 1, 1}, float32}},
        {'B', {{3, 3, 1}, float32}},    {'C', {{4}, float32}},
        {'E', {{9, 9}, float32}},       {'F', {{4, 3}, float32}},
        {'M', {{1, 4, 16}, float32}},   {'P', {{2}, float32}}};
    if (const auto found = plain.find(letter); found != plain.end()) {
        return filled(found->second.first, found->second.second);
    }
    auto result = std::make_unique<Tensor>();
    switch (letter) {
        case 'z':
            return make<float>({2, 3}, {1, 2, 3, 4, 5, 6}, Layout::transposed);
        case 'y':
            result->init_none_tensor_with_shared_storage({2, 3}, {0, 1}, dtype::float32, 0,
                                                         filled({3}, dtype::float32)->getStorage(), layout::dense, 0);
            return result;
        case 'e':
            result->initialize_none_tensor({2, 0}, dtype::float32, 0, layout::dense);
            return result;
        case 'p':
            return TensorPtr(to_coo(filled({3, 3}, dtype::float32).get()));
        case 'h':
            return TensorPtr(to_csr(filled({3, 3}, dtype::float32).get()));
        case 'n':
            return TensorPtr(Tensor::arange(0, 3, 1, 0, dtype::int32));
        case 'N':
            return TensorPtr(Tensor::arange(0, 4, 1, 0, dtype::int64));
        case 'O':
            return TensorPtr(Tensor::ones({2, 3}, 0, dtype::float32));
        case '1':
            return result;
        case '2':
            return bare({2, 3}, 0);
        case '3':
            result->init_none_tensor_with_shared_storage({2, 3}, {3, 1}, dtype::float32, 0,
                                                         filled({6}, dtype::float32)->getStorage(), layout::csr, 0);
            return result;
        case '4':
            result = filled({2, 3}, dtype::float32);
            result->updateDevice(1000);
            return result;
        case '5':
            return bare({2, 3}, 1000);
        case '6':
            result->init_sparse_tensor({3, 3}, dtype::float32, 0, layout::coo, {});
            return result;
        case '7':
            return filled(Dims(29, 1), dtype::float32);
        default:
            return nullptr;
    }
}

/// Everything that one call is made with.
struct World {
    World(std::string_view good, std::vector<std::size_t> pick_list, int read_only = -1)
        : wanted(good.substr(0, good.find('|'))), picks(std::move(pick_list)), read_only_operand(read_only) {
        std::istringstream list{std::string(good.substr(std::min(good.find('|'), good.size() - 1) + 1))};
        for (double value = 0; wanted.size() < good.size() && list >> value; list.ignore(1)) {
            numbers.push_back(value);
        }
    }

    Tensor* keep(TensorPtr t) {
        tensors.push_back(std::move(t));
        return tensors.back().get();
    }
    /// The next operand: what the letters say, another tensor, or the operand before once more.
    Tensor* operand() {
        const char letter = wanted[position];
        const char mark = position + 1 < wanted.size() ? wanted[position + 1] : ' ';
        const std::size_t step = mark == '!' || mark == '?' ? 2 : 1;
        position += position + step < wanted.size() ? step : 0;  // The last letter serves what is left.
        const std::size_t pick = picks.next(letters.size() + 2);
        Tensor* t = pick == letters.size() + 1 && !operands.empty()
                        ? operands.back().tensor
                        : keep(tensor_of(pick == 0 || pick > letters.size() ? letter : letters[pick - 1]));
        const auto storage = t == nullptr ? nullptr : t->getStorage();
        if (storage && static_cast<int>(operands.size()) == read_only_operand) {
            storage->set_read_only(true);
        }
        operands.push_back({t, storage, storage ? storage->version() : 0, mark, bytes(t)});
        return t;
    }
    static std::string bytes(const Tensor* t) {
        return t != nullptr && t->getRawData() != nullptr && t->Size() > 0 && t->Size() < 10000 ? bytes_of(t) : "";
    }
    /// The good number for the next argument that is no operand: a value, or a place in a list of candidates.
    double number(double usual) { return numbers_taken < numbers.size() ? numbers[numbers_taken++] : usual; }
    template <typename T>
    T one_of(std::initializer_list<T> values) {
        const auto good = static_cast<std::size_t>(number(0));
        const std::size_t pick = picks.next(values.size());
        return values.begin()[pick == 0 ? good : pick];
    }
    /// Reads a result and deletes it, unless it is an operand.
    void take(Tensor* result) {
        const bool own = std::any_of(tensors.begin(), tensors.end(), [&](const auto& t) { return t.get() == result; });
        if (result != nullptr && !own) {
            bytes(keep(TensorPtr(result)));
        }
    }

    struct Operand {
        Tensor* tensor;
        std::shared_ptr<tensorT::Tensor_storage> storage;
        std::uint32_t version;
        char mark;  // '!' for one that is written, '?' for one that may be
        std::string before;
    };
    std::string_view wanted;
    std::size_t position = 0;
    std::vector<double> numbers;
    std::size_t numbers_taken = 0;
    Picks picks;
    int read_only_operand;
    std::vector<TensorPtr> tensors;
    std::vector<Operand> operands;
};

// ---- One argument of a type ----

template <typename T>
T number_or(World& world, double usual, std::initializer_list<T> hostile) {
    const double good = world.number(usual);
    const std::size_t pick = world.picks.next(hostile.size());
    return pick == 0 ? static_cast<T>(good) : hostile.begin()[pick];
}

template <typename T>
struct Argument;

template <>
struct Argument<Tensor*> {
    static Tensor* make(World& world) { return world.operand(); }
};
template <>
struct Argument<const Tensor*> : Argument<Tensor*> {};
template <>
struct Argument<Tensor**> {
    static Tensor** make(World& world) {
        static Tensor* slot = nullptr;
        world.take(slot);
        slot = nullptr;
        return world.picks.next(2) == 0 ? &slot : nullptr;
    }
};
template <typename T>
requires std::is_integral_v<T>
struct Argument<T> {
    static T make(World& world) {
        using Limits = std::numeric_limits<T>;
        return number_or<T>(world, 1,
                            {T(1), T(0), T(-1), T(2), T(3), T(-2), T(100), T(-2000), T(Limits::max() / 2),
                             Limits::max(), Limits::min(), T(Limits::max() - 7)});
    }
};
template <>
struct Argument<bool> {
    static bool make(World& world) { return number_or<bool>(world, 0, {false, true, false}); }
};
template <typename T>
requires std::is_floating_point_v<T>
struct Argument<T> {
    static T make(World& world) {
        using Limits = std::numeric_limits<T>;
        return number_or<T>(world, 0.5,
                            {T(0.5), T(0), T(-0.5), T(1), T(4), Limits::quiet_NaN(), Limits::infinity(),
                             -Limits::infinity(), Limits::max(), Limits::lowest(), Limits::denorm_min(), T(1e10)});
    }
};
template <typename T>
struct Argument<std::complex<T>> {
    static std::complex<T> make(World& world) { return {Argument<T>::make(world), Argument<T>::make(world)}; }
};
template <typename T>
struct Argument<complex_scalar::complex<T>> {
    static complex_scalar::complex<T> make(World& world) { return Argument<std::complex<T>>::make(world); }
};
template <>
struct Argument<Scalar> {
    static Scalar make(World& world) {
        switch (world.picks.next(4)) {
            case 0:
                return Scalar(1);
            case 1:
                return Scalar(Argument<double>::make(world));
            case 2:
                return Scalar(Argument<std::int64_t>::make(world));
            default:
                return Scalar(Argument<std::complex<float>>::make(world));
        }
    }
};
template <>
struct Argument<Dims> {
    static Dims make(World& world) {
        constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
        constexpr std::int64_t half = std::int64_t{1} << 32;
        return world.one_of<Dims>({{2, 3},
                                   {3, 2},
                                   {6},
                                   {},
                                   {-1},
                                   {0},
                                   {1},
                                   {3, 3},
                                   {2, 3, 3},
                                   {1, 4, 4, 4},
                                   {2, 2},
                                   {-1, -6},
                                   {2, 0, 3},
                                   {max},
                                   {-max - 1},
                                   {max, max},
                                   {half, half},
                                   {half, -half, 0},
                                   {1 << 24, 1 << 10},
                                   {3, 1},
                                   {1, -1},
                                   {max, 0},
                                   Dims(29, 1),
                                   Dims(40, 1),
                                   Dims(3000, 1),
                                   {2, -1},
                                   {0, 0}});
    }
};
template <>
struct Argument<std::vector<int>> {
    static std::vector<int> make(World& world) {
        constexpr int max = std::numeric_limits<int>::max();
        return world.one_of<std::vector<int>>({{1, 0},
                                               {},
                                               {0},
                                               {1},
                                               {-1},
                                               {1, 1},
                                               {2, 2},
                                               {-3},
                                               {0, -1},
                                               {max},
                                               {-max - 1},
                                               {max, max},
                                               {1, 1, 2, 3},
                                               {0, 0},
                                               {-1, -2},
                                               {3, 1, 4},
                                               std::vector<int>(40, 1),
                                               {1, max}});
    }
};
template <>
struct Argument<std::vector<float>> {
    static std::vector<float> make(World& world) {
        return world.one_of<std::vector<float>>(
            {{}, {0.5F}, {1}, {-1, 2}, {std::numeric_limits<float>::quiet_NaN()}, {3e38F}});
    }
};
template <>
struct Argument<std::vector<std::string>> {
    static std::vector<std::string> make(World& world) {
        return world.one_of<std::vector<std::string>>({{"0:2", ":"},
                                                       {},
                                                       {":"},
                                                       {"1", "1"},
                                                       {"1,0"},
                                                       {"1,1,0", "2,2"},
                                                       {"-1"},
                                                       {"99"},
                                                       {""},
                                                       {"0:1:0"},
                                                       {":", ":", ":"},
                                                       {"2:0"},
                                                       {"-9:1"},
                                                       {"x"},
                                                       {"2147483648"},
                                                       {"0:2:2147483647"},
                                                       {"::"},
                                                       {"-2147483648,0"}});
    }
};
template <>
struct Argument<std::string> {
    static std::string make(World& world) {
        return world.one_of<std::string>({"nearest", "bilinear", "same", "valid", "custom", "same,none", "relu",
                                          "softmax", "elu", "nll_loss", "bce", "mse", "sce", "none", "", "unknown",
                                          std::string(10000, '%')});
    }
};
template <>
struct Argument<std::vector<Tensor*>> {
    static std::vector<Tensor*> make(World& world) {
        std::vector<Tensor*> list;
        for (std::size_t n = world.one_of<std::size_t>({2, 0, 1, 3, 40}); n > 0; --n) {
            list.push_back(world.operand());
        }
        return list;
    }
};
template <>
struct Argument<TensorToptions> {
    static TensorToptions make(World& world) {
        TensorToptions options;
        options.dtype = world.one_of<std::int64_t>({6, 0, 9, 10, -1, 1LL << 40});
        options.device = world.one_of<std::int64_t>({0, 1, 1000, -1, std::numeric_limits<std::int64_t>::min()});
        options.shape = Argument<Dims>::make(world);
        options.stride = Argument<Dims>::make(world);
        options.size = Argument<std::int64_t>::make(world);
        return options;
    }
};
template <>
struct Argument<std::shared_ptr<tensorT::Tensor_storage>> {
    static std::shared_ptr<tensorT::Tensor_storage> make(World& world) {
        Tensor* t = world.operand();
        return t == nullptr ? nullptr : t->getStorage();
    }
};
template <>
struct Argument<std::vector<TensorPtr>> {
    static std::vector<TensorPtr> make(World& world) {
        std::vector<TensorPtr> members;
        for (std::size_t n = world.one_of<std::size_t>({3, 0, 1, 4}); n > 0; --n) {
            members.push_back(tensor_of(letters[world.picks.next(letters.size())]));
        }
        return members;
    }
};
template <typename T>
requires std::is_same_v<T, void*> || std::is_same_v<T, const void*>
struct Argument<T> {
    static T make(World& /*world*/) { return nullptr; }
};
template <>
struct Argument<std::vector<bool>> {
    static std::vector<bool> make(World& world) {
        return std::vector<bool>(world.one_of<std::size_t>({2, 0, 1, 5}), true);
    }
};
template <>
struct Argument<std::vector<AxisSelection>> {
    static std::vector<AxisSelection> make(World& world) {
        constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
        return world.one_of<std::vector<AxisSelection>>(
            {{{0, 1, 2}, {1, 2, 1}}, {}, {{0, 1, 1}}, {{max, max, 1}, {max, max, 1}}, {{0, 0, 1}, {-1, -1, 1}}});
    }
};
template <>
struct Argument<Packing> {
    static Packing make(World& world) {
        return Packing(world.one_of<Dims>({{3, 1}, {1}, {0, 2, 1}, {1, 1, 1, 1}, {100000}}));
    }
};
template <>
struct Argument<ConvolDescriptor> {
    static ConvolDescriptor make(World& world) {
        ConvolDescriptor descriptor({4, 1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, 1);
        if (world.picks.next(2) == 0) {
            descriptor.build_dynamic(tensor_of('q').get(), tensor_of('j').get());
        }
        return descriptor;
    }
};
template <>
struct Argument<ConvolDescriptorT2D> {
    static ConvolDescriptorT2D make(World& world) {
        ConvolDescriptorT2D descriptor(4, {1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, {0, 0}, 1);
        if (world.picks.next(2) == 0) {
            descriptor.build_dynamic(tensor_of('q').get(), tensor_of('j').get());
        }
        return descriptor;
    }
};
template <>
struct Argument<AttentionProjection> {
    static AttentionProjection make(World& world) { return {world.operand(), world.operand()}; }
};
template <>
struct Argument<MultiHeadParameters> {
    static MultiHeadParameters make(World& world) {
        using Map = Argument<AttentionProjection>;
        return {Map::make(world), Map::make(world), Map::make(world), Map::make(world)};
    }
};
template <>
struct Argument<MultiHeadState*> {
    static MultiHeadState* make(World& world) {
        static MultiHeadState state;
        return world.picks.next(2) == 0 ? &state : nullptr;
    }
};
template <>
struct Argument<MultiHeadState> {
    static MultiHeadState make(World& world) {
        if (world.picks.next(2) == 0) {
            const TensorPtr weight = tensor_of('s');
            const TensorPtr input = tensor_of('t');
            const AttentionProjection map{weight.get(), nullptr};
            MultiHeadState state;
            TensorPtr(
                multi_head_attention({map, map, map, map}, 1, input.get(), input.get(), input.get(), nullptr, &state));
            return state;
        }
        const auto next = [&] { return tensor_of(letters[world.picks.next(letters.size())]); };
        return {next(), next(), next(), next(), next()};
    }
};

// ---- Results ----

template <typename T>
void take_result(World& world, T&& result) {
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, Tensor*>) {
        world.take(result);
    } else if constexpr (std::is_same_v<Plain, std::vector<Tensor*>> || std::is_same_v<Plain, std::array<Tensor*, 3>>) {
        std::for_each(result.begin(), result.end(), [&](Tensor* t) { world.take(t); });
    } else if constexpr (std::is_same_v<Plain, Layer*> || std::is_same_v<Plain, Loss*>) {
        delete result;
    }
}

/// Calls the function with arguments of the world's picking.
template <typename R, typename... A, typename Function>
void invoke(World& world, const Function& function) {
    std::tuple<std::decay_t<A>...> arguments{Argument<std::decay_t<A>>::make(world)...};
    std::apply(
        [&](auto&... argument) {
            if constexpr (std::is_void_v<R>) {
                function(std::forward<A>(argument)...);
            } else {
                take_result(world, function(std::forward<A>(argument)...));
            }
        },
        arguments);
}

}  // namespace ornik::test
