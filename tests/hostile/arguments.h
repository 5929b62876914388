// arguments.h: arguments of every type that the public functions take, good ones and hostile ones, picked by numbers.
//
// A call's picks are a list of numbers: 0 stands for the good argument that the table of functions names, all others
// for something else of the same type. Operands are made afresh for each call and freed with the World.
#pragma once

#include <algorithm>
#include <cmath>
#include <concepts>
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
/// sparse matrix without members, 7 many axes, 8 negative extents, 9 indices outside. Odd values: I numbers below 0
/// and beyond 1, S NaN, G too large for sums; Z zeros. R is expanded.
inline constexpr std::string_view letters = "xdcbkivfoasmtqrwlzyeugphjnNOBCEFMPVWXYZGRSI0123456789";

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
        {'M', {{1, 4, 16}, float32}},   {'P', {{2}, float32}},
        {'V', {{12}, float32}},         {'W', {{12, 3}, float32}},
        {'X', {{9, 3}, float32}},       {'Y', {{9}, float32}}};
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
        case 'Z':
            return TensorPtr(Tensor::zeros({2, 3}, 0, dtype::float32));
        case 'R':
            return TensorPtr(Tensor::broadcast_to(filled({3}, dtype::float32).get(), {3, 3}));
        case 'I':
            return make<float>({2, 3}, {-1, 0.5F, 1.5F, 0, 2, -2});
        case 'S':
            return make<float>({2, 2}, {std::nanf(""), 1, 2, 3});
        case 'G':
            return make<double>({2, 2}, std::vector<double>(4, std::numeric_limits<double>::max()));
        case '7':
            return filled(Dims(29, 1), dtype::float32);
        case '8':
            return TensorPtr(Tensor::broadcast_to(filled({}, dtype::float32).get(), {-2, -3}));
        case '9':
            return make<std::int64_t>({2}, {99, -99});
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
        results.reserve(100);
    }

    ~World() { delete slot; }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

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
        return t != nullptr && t->getRawData() != nullptr && t->Size() > 0 && t->Size() < 10000
                   ? shape_text(t->Shape()) + shape_text(t->Strides()) + bytes_of(t)
                   : "";
    }
    /// The good number for the next argument that is no operand: a value, or a place in a list of candidates.
    double number(double usual) { return numbers_taken < numbers.size() ? numbers[numbers_taken++] : usual; }
    template <typename T>
    T one_of(const std::vector<T>& values) {
        const auto good = static_cast<std::size_t>(number(0));
        const std::size_t pick = picks.next(values.size());
        return values[pick == 0 ? good : pick];
    }
    /// Keeps a result, unless it is an operand; asks for no memory.
    void take(Tensor* result) {
        const bool own = std::any_of(tensors.begin(), tensors.end(), [&](const auto& t) { return t.get() == result; });
        if (result != nullptr && !own) {
            results.emplace_back(result);
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
    std::vector<TensorPtr> results;
    std::vector<Operand> operands;
    Tensor* slot = nullptr;  // what a function may leave behind
    MultiHeadState state;
};

// ---- One argument of a type ----

/// Chooses the overload of make_argument for a type.
template <typename T>
struct As {};

/// Lists of numbers: "2 3 , , x29" stands for {2, 3}, {}, and 29 ones; max and min for the ends of the type.
template <typename T>
std::vector<std::vector<T>> lists_of(const std::string& text) {
    std::vector<std::vector<T>> lists(1);
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (word == ",") {
            lists.emplace_back();
        } else if (word[0] == 'x') {
            lists.back().assign(std::stoul(word.substr(1)), T(1));
        } else {
            lists.back().push_back(word == "max"   ? std::numeric_limits<T>::max()
                                   : word == "min" ? std::numeric_limits<T>::lowest()
                                                   : static_cast<T>(std::stod(word)));
        }
    }
    return lists;
}

template <typename T>
T number_or(World& world, double usual, std::initializer_list<T> hostile) {
    const double good = world.number(usual);
    const std::size_t pick = world.picks.next(hostile.size());
    return pick == 0 ? static_cast<T>(good) : hostile.begin()[pick];
}

/// Structures of settings are good as they come, and so are null pointers to what is no tensor.
template <typename T>
T make_argument(World& /*world*/, As<T> /*type*/) {
    return T{};
}
inline Tensor* make_argument(World& world, As<Tensor*> /*type*/) { return world.operand(); }
inline const Tensor* make_argument(World& world, As<const Tensor*> /*type*/) { return world.operand(); }
inline Tensor** make_argument(World& world, As<Tensor**> /*type*/) {
    world.take(std::exchange(world.slot, nullptr));
    return world.picks.next(2) == 0 ? &world.slot : nullptr;
}
template <std::integral T>
T make_argument(World& world, As<T> /*type*/) {
    using Limits = std::numeric_limits<T>;
    return number_or<T>(world, 1,
                        {T(1), T(0), T(-1), T(2), T(3), T(-2), T(100), T(-2000), T(Limits::max() / 2), Limits::max(),
                         Limits::min(), T(Limits::max() - 7)});
}
inline bool make_argument(World& world, As<bool> /*type*/) { return number_or<bool>(world, 0, {false, true, false}); }
template <std::floating_point T>
T make_argument(World& world, As<T> /*type*/) {
    using Limits = std::numeric_limits<T>;
    return number_or<T>(world, 0.5,
                        {T(0.5), T(0), T(-0.5), T(1), T(4), Limits::quiet_NaN(), Limits::infinity(),
                         -Limits::infinity(), Limits::max(), Limits::lowest(), Limits::denorm_min(), T(1e10)});
}
template <typename T>
std::complex<T> make_argument(World& world, As<std::complex<T>> /*type*/) {
    return {make_argument(world, As<T>{}), make_argument(world, As<T>{})};
}
template <typename T>
complex_scalar::complex<T> make_argument(World& world, As<complex_scalar::complex<T>> /*type*/) {
    return make_argument(world, As<std::complex<T>>{});
}
inline Scalar make_argument(World& world, As<Scalar> /*type*/) {
    const std::size_t kind = world.picks.next(4);
    return kind == 0   ? Scalar(1)
           : kind == 1 ? Scalar(make_argument(world, As<double>{}))
           : kind == 2 ? Scalar(make_argument(world, As<std::int64_t>{}))
                       : Scalar(make_argument(world, As<std::complex<float>>{}));
}
template <typename T>
concept Enumeration = std::is_enum_v<T>;
template <Enumeration T>
T make_argument(World& world, As<T> /*type*/) {
    const double good = world.number(0);
    const std::size_t pick = world.picks.next(10);
    return static_cast<T>(pick == 0 ? static_cast<std::size_t>(good) : pick);
}

// ---- Lists ----

inline Dims make_argument(World& world, As<Dims> /*type*/) {
    return world.one_of(lists_of<std::int64_t>(
        "2 3 , 3 2 , 6 , , -1 , 0 , 1 , 3 3 , 2 3 3 , 1 4 4 4 , 2 2 , -1 -6 , 2 0 3 , max , min , max max , 4294967296 "
        "4294967296 , 4294967296 -4294967296 0 , 16777216 1024 , 3 1 , 1 -1 , max 0 , x29 , x40 , x3000 , 2 -1 , 0 0"));
}
inline std::vector<int> make_argument(World& world, As<std::vector<int>> /*type*/) {
    return world.one_of(lists_of<int>(
        "1 0 , , 0 , 1 , -1 , 1 1 , 2 2 , -3 , 0 -1 , max , min , max max , 1 1 2 3 , 0 0 , -1 -2 , 3 1 4 "
        ", x40 , 1 max"));
}
inline std::vector<float> make_argument(World& world, As<std::vector<float>> /*type*/) {
    return world.one_of(lists_of<float>(", 0.5 , 1 , -1 2 , nan , 3e38"));
}
inline std::vector<std::string> make_argument(World& world, As<std::vector<std::string>> /*type*/) {
    std::vector<std::vector<std::string>> lists(1);
    std::istringstream words(
        "0:2 : ; : ; 1 1 ; 1,0 ; 1,1,0 2,2 ; -1 ; 99 ; 0:1:0 ; : : : ; 2:0 ; -9:1 ; x ; 2147483648 ; 0:2:2147483647 ; "
        ":: ; -2147483648,0 ; : -9 ; 3:1 ; 0:9 ; 2:2:0 ; 1:2:3:4 ; 0:2:-1");
    for (std::string word; words >> word;) {
        word == ";" ? void(lists.emplace_back()) : lists.back().push_back(word);
    }
    lists.push_back({""});
    lists.emplace_back();
    return world.one_of(lists);
}
inline std::string make_argument(World& world, As<std::string> /*type*/) {
    return world.one_of<std::string>({"nearest", "bilinear", "same", "valid", "custom", "same,none", "relu", "softmax",
                                      "elu", "nll_loss", "bce", "mse", "sce", "none", "", "unknown", "log_softmax",
                                      std::string(10000, '%')});
}
inline std::vector<Tensor*> make_argument(World& world, As<std::vector<Tensor*>> /*type*/) {
    std::vector<Tensor*> list;
    for (std::size_t n = world.one_of<std::size_t>({2, 0, 1, 3, 40}); n > 0; --n) {
        list.push_back(world.operand());
    }
    return list;
}
inline std::vector<TensorPtr> make_argument(World& world, As<std::vector<TensorPtr>> /*type*/) {
    std::vector<TensorPtr> members;
    for (std::size_t n = world.one_of<std::size_t>({3, 0, 1, 4}); n > 0; --n) {
        members.push_back(tensor_of(letters[world.picks.next(letters.size())]));
    }
    return members;
}
inline std::vector<bool> make_argument(World& world, As<std::vector<bool>> /*type*/) {
    return std::vector<bool>(world.one_of<std::size_t>({2, 0, 1, 5}), true);
}
template <std::size_t n>
std::array<bool, n> make_argument(World& world, As<std::array<bool, n>> /*type*/) {
    std::array<bool, n> flags{};
    flags.fill(!make_argument(world, As<bool>{}));
    return flags;
}
inline std::array<std::int64_t, 2> make_argument(World& world, As<std::array<std::int64_t, 2>> /*type*/) {
    return {make_argument(world, As<std::int64_t>{}), make_argument(world, As<std::int64_t>{})};
}
inline std::vector<AxisSelection> make_argument(World& world, As<std::vector<AxisSelection>> /*type*/) {
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    return world.one_of<std::vector<AxisSelection>>(
        {{{0, 1, 2}, {1, 2, 1}}, {}, {{0, 1, 1}}, {{max, max, 1}, {max, max, 1}}, {{0, 0, 1}, {-1, -1, 1}}});
}
inline SliceItems make_argument(World& world, As<SliceItems> /*type*/) {
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    using I = SliceItem;
    // One item each, then several.
    std::vector<SliceItems> candidates;
    for (const I& item : {I::all(), I::index(1), I::index(max), I::index(-max - 1), I::range(-max - 1, max, max),
                          I::range(max, -max - 1, -max - 1), I::all(0), I::positions(nullptr)}) {
        candidates.push_back({item});
    }
    candidates.push_back({});
    candidates.push_back({I::ellipsis(), I::from(2, -1)});
    candidates.push_back({I::new_axis(), I::all(-1), I::range(-1, -3, -1)});
    candidates.push_back({I::ellipsis(), I::ellipsis()});
    candidates.push_back({I::positions(world.operand())});
    candidates.push_back(SliceItems(40, I::new_axis()));
    return world.one_of(candidates);
}
inline std::vector<PadWidth> make_argument(World& world, As<std::vector<PadWidth>> /*type*/) {
    std::vector<std::vector<PadWidth>> candidates;
    for (const Dims& ends :
         lists_of<std::int64_t>("1 0 0 2 , , 1 1 , -1 0 -1 -1 , -3 -3 0 0 , max max 0 0 , min 0 0 0 , 0 100 7 0")) {
        candidates.emplace_back();
        for (std::size_t i = 0; i < ends.size(); i += 2) {
            candidates.back().push_back({ends[i], ends[i + 1]});
        }
    }
    return world.one_of(candidates);
}

// ---- Structures ----

inline TensorToptions make_argument(World& world, As<TensorToptions> /*type*/) {
    TensorToptions options;
    options.dtype = world.one_of<std::int64_t>({6, 0, 9, 10, -1, 1LL << 40});
    options.device = world.one_of<std::int64_t>({0, 1, 1000, -1, std::numeric_limits<std::int64_t>::min()});
    options.shape = make_argument(world, As<Dims>{});
    options.stride = make_argument(world, As<Dims>{});
    options.size = make_argument(world, As<std::int64_t>{});
    return options;
}
inline auto make_argument(World& world, As<std::shared_ptr<tensorT::Tensor_storage>> /*type*/) {
    Tensor* t = world.operand();
    return t == nullptr ? nullptr : t->getStorage();
}
inline Packing make_argument(World& world, As<Packing> /*type*/) {
    return Packing(world.one_of(lists_of<std::int64_t>("3 1 , 1 , 0 2 1 , 1 1 1 1 , 100000")));
}
inline ConvolDescriptor good_argument(As<ConvolDescriptor> /*type*/) {
    return {{4, 1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, 1};
}
inline ConvolDescriptorT2D good_argument(As<ConvolDescriptorT2D> /*type*/) {
    return {4, {1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, {0, 0}, 1};
}
template <typename T>
concept Descriptor = requires(As<T> type) {
    good_argument(type);
};
/// A descriptor of a convolution, before or after it learned its sizes.
template <Descriptor T>
T make_argument(World& world, As<T> type) {
    T descriptor = good_argument(type);
    if (world.picks.next(2) == 0) {
        descriptor.build_dynamic(tensor_of('q').get(), tensor_of('j').get());
    }
    return descriptor;
}
inline AttentionProjection make_argument(World& world, As<AttentionProjection> /*type*/) {
    return {world.operand(), world.operand()};
}
inline MultiHeadParameters make_argument(World& world, As<MultiHeadParameters> /*type*/) {
    const auto map = [&] { return make_argument(world, As<AttentionProjection>{}); };
    return {map(), map(), map(), map()};
}
inline MultiHeadState* make_argument(World& world, As<MultiHeadState*> /*type*/) {
    return world.picks.next(2) == 0 ? &world.state : nullptr;
}
inline MultiHeadState make_argument(World& world, As<MultiHeadState> /*type*/) {
    if (world.picks.next(2) == 0) {
        const TensorPtr weight = tensor_of('s'), input = tensor_of('t');
        const AttentionProjection map{weight.get(), nullptr};
        MultiHeadState state;
        Tensor* const in = input.get();
        TensorPtr(multi_head_attention({map, map, map, map}, 1, in, in, in, nullptr, &state));
        return state;
    }
    const auto next = [&] { return tensor_of(letters[world.picks.next(letters.size())]); };
    return {next(), next(), next(), next(), next()};
}
inline nn::RecurrentWeights make_argument(World& world, As<nn::RecurrentWeights> /*type*/) {
    return {world.operand(), world.operand(), world.operand(), world.operand()};
}
inline nn::RecurrentSaved make_argument(World& world, As<nn::RecurrentSaved> /*type*/) {
    return {world.operand(), world.operand(), world.operand()};
}
inline nn::RecurrentUpstream make_argument(World& world, As<nn::RecurrentUpstream> /*type*/) {
    return {world.operand(), world.operand(), world.operand()};
}

// ---- Results ----

template <typename T>
void take_result(World& world, T&& result) {
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, Tensor*>) {
        world.take(result);
    } else if constexpr (std::is_same_v<Plain, TensorPtr>) {
        world.take(result.release());
    } else if constexpr (std::is_same_v<Plain, std::vector<Tensor*>> || std::is_same_v<Plain, std::array<Tensor*, 3>>) {
        std::for_each(result.begin(), result.end(), [&](Tensor* t) { world.take(t); });
    } else if constexpr (std::is_same_v<Plain, Layer*> || std::is_same_v<Plain, Loss*>) {
        delete result;
    }
}

/// Calls the function with arguments of the world's picking.
template <typename R, typename... A, typename Function>
void invoke(World& world, const Function& function) {
    std::tuple<std::decay_t<A>...> arguments{make_argument(world, As<std::decay_t<A>>{})...};
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
