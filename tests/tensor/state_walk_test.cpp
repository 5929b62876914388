// Random sequences of state changes with hostile numbers: whatever is accepted, no tensor claims or touches memory
// outside its storage; whatever is refused changes nothing. The buffers are heap blocks of the exact size, so that
// AddressSanitizer sees every step outside.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <limits>
#include <random>

#include "support/tensors.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_shape.h"

namespace ornik::test {
namespace {

constexpr std::int64_t max64 = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t min64 = std::numeric_limits<std::int64_t>::min();
using Storage = std::shared_ptr<tensorT::Tensor_storage>;

Storage heap_block(std::int64_t count) {
    auto* items = new float[static_cast<std::size_t>(count)]();
    return tensorT::Tensor_storage::from_foreign(items, count, dtype::float32, [items] { delete[] items; });
}

auto snapshot(const Tensor& t) {
    return std::tuple(t.Shape(), t.Strides(), t.Size(), t.Dtype(), t.Device(), t.StorageOffset(), t.getGPUIndex(),
                      t.get_if_scalar(), t.getStorage(), t.getMeta(), t.get_options());
}

class StateWalk {
  public:
    explicit StateWalk(unsigned seed) : engine_(seed) {
        for (const std::int64_t count : {1, 6, 24}) {
            storages_.push_back(heap_block(count));
        }
        tensors_.resize(4);
        for (TensorPtr& t : tensors_) {
            renew(t);
        }
    }

    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            TensorPtr& t = any_tensor();
            testing::internal::CaptureStdout();
            change(*t);
            use(*t);
            const std::string printed = testing::internal::GetCapturedStdout();
            std::cout << (testing::Test::HasFailure() ? printed : "");
            if (one_in(10)) {
                renew(t);
            }
        }
        EXPECT_GT(accepted_, steps / 10);
        EXPECT_GT(refused_, steps / 10);
    }

  private:
    int below(std::size_t n) { return static_cast<int>(engine_() % n); }
    bool one_in(int n) { return below(static_cast<std::size_t>(n)) == 0; }
    template <typename List>
    auto& any_of(List& list) {
        return list[static_cast<std::size_t>(below(std::size(list)))];
    }
    TensorPtr& any_tensor() { return any_of(tensors_); }
    const Storage& any_storage() { return any_of(storages_); }

    std::int64_t number() {
        static constexpr std::int64_t likely[] = {0, 1, 1, 2, 2, 3, 4, 6, 6, 12, 24};
        static constexpr std::int64_t hostile[] = {-1, -2, -3, -6, 5, 7, 25, 1LL << 45, (1LL << 45) + 2, max64, min64};
        return one_in(6) ? any_of(hostile) : any_of(likely);
    }
    Dims numbers() {
        Dims list(static_cast<std::size_t>(below(4)));
        std::generate(list.begin(), list.end(), [&] { return number(); });
        return list;
    }
    // A list of which some fit the tensor.
    Dims numbers_for(const Tensor& t, bool extents) {
        Dims list = one_in(3) ? numbers() : (extents ? t.Shape() : t.Strides());
        std::shuffle(list.begin(), list.end(), engine_);
        if (extents && one_in(4)) {
            list.insert(list.begin(), 1);
        }
        return list;
    }
    std::int64_t code() { return one_in(8) ? number() : 2 + 2 * below(4); }

    void renew(TensorPtr& t) {
        const Storage& storage = any_storage();
        const std::int64_t count = storage->getSize();
        const Dims shape = count == 24 ? Dims{2, 3, 4} : (count == 6 ? Dims{2, 3} : (one_in(2) ? Dims{1} : Dims{}));
        t.reset(share_storage_tensor(storage, shape, shape2stride(shape), dtype::float32, 0));
    }

    // Calls it; a refusal must leave every tensor as it was.
    template <typename Call>
    void attempt(const std::string& name, const Call& call) {
        std::vector<decltype(snapshot(*tensors_[0]))> before;
        for (const TensorPtr& t : tensors_) {
            before.push_back(snapshot(*t));
        }
        trace_ = name;
        try {
            call();
            ++accepted_;
        } catch (const std::runtime_error&) {
            ++refused_;
            for (std::size_t i = 0; i < tensors_.size(); ++i) {
                EXPECT_TRUE(snapshot(*tensors_[i]) == before[i]) << trace_ << " left a change behind";
            }
        }
        for (const TensorPtr& t : tensors_) {
            check(*t);
        }
    }

    void change(Tensor& t) {
        Tensor& other = *any_tensor();
        const Dims extents = numbers_for(t, true), strides = numbers_for(t, false);
        const std::int64_t n = number(), dtype = code();
        const std::string lists = shape_text(extents) + shape_text(strides) + std::to_string(n);
        const Storage& storage = any_storage();
        const bool both = has_storage(t) && has_storage(other);
        const std::pair<std::string, std::function<void()>> changes[] = {
            {"updateShape" + lists, [&] { t.updateShape(extents); }},
            {"updateShape" + lists, [&] { t.updateShape(extents); }},
            {"updateStrides" + lists, [&] { t.updateStrides(strides); }},
            {"updateStrides", [&] { t.updateStrides(); }},
            {"updateSize", [&] { t.updateSize(); }},
            {"setSize" + lists, [&] { t.setSize(n); }},
            {"updateDtype", [&] { t.updateDtype(dtype); }},
            {"updateOffset" + lists, [&] { t.updateOffset(n); }},
            {"setStorage", [&] { t.setStorage(storage); }},
            {"init_without" + lists, [&] { t.init_tensor_without_alloc_data(extents, dtype, n, 0); }},
            {"initialize" + lists, [&] { t.initialize_none_tensor(extents, dtype, 0, 0); }},
            {"share" + lists,
             [&] { t.init_none_tensor_with_shared_storage(extents, strides, dtype, 0, storage, 0, n); }},
            {"reshape_" + lists, [&] { t.reshape_(extents); }},
            {"copy_tensor", [&] { both ? copy_tensor(&t, &other) : void(); }},
            {"CopyToTargetWithDtype",
             [&] { both ? t.CopyToTargetWithDtype(&other, other.Dtype(), one_in(2)) : void(); }},
        };
        const auto& [name, call] = any_of(changes);
        attempt(name, call);
    }

    static bool has_storage(const Tensor& t) { return t.getStorage() != nullptr; }

    // Reads and writes that go by the shape, by the element count, or by both.
    void use(Tensor& t) {
        if (!has_storage(t) || std::max(t.Size(), numel_of(t.Shape())) > 1000) {
            return;
        }
        const auto made = [](Tensor* result) { delete result; };
        const std::pair<std::string, std::function<void()>> uses[] = {
            {"Print", [&] { t.Print(); }},
            {"Meta::Print", [&] { t.getMeta()->Print(); }},
            {"fill_", [&] { t.fill_(1); }},
            {"rand", [&] { t.fill_rand_uniform_inplace(1); }},  // May give a tensor without axes its one element back.
            {"clone", [&] { made(t.clone()); }},
            {"astype", [&] { made(t.astype(dtype::float64)); }},
            {"reshape_copy", [&] { made(t.reshape_copy({t.Size()})); }},
            {"sum", [&] { made(sum(&t, {}, false)); }},
            {"exp", [&] { made(t.exp()); }},
            {"add", [&] { t.add_tensor_inplace(&t); }},
            {"take",
             [&] {
                 made(take(&t, make<std::int64_t>({2}, {0, t.Size() - 1}).get()));
             }},
            {"view", [&] { made(t.unsqueeze(below(3))); }},
        };
        const auto& [name, call] = any_of(uses);
        attempt(name, call);
    }

    void check(const Tensor& t) {
        const std::string text = trace_ + ": shape " + shape_text(t.Shape()) + "strides " + shape_text(t.Strides());
        ASSERT_EQ(t.Shape().size(), t.Strides().size()) << text;
        ASSERT_EQ(static_cast<std::size_t>(t.ndim()), t.Shape().size()) << text;
        ASSERT_EQ(t.get_if_scalar(), t.Shape().empty()) << text;
        const std::int64_t numel = numel_of(t.Shape());
        ASSERT_TRUE(t.Shape().empty() ? t.Size() >= 0 : t.Size() <= numel) << text << t.Size();
        ASSERT_TRUE(!t.is_contiguous() || t.Size() == numel || t.Size() == 0) << text << t.Size();
        const TensorToptions& options = *t.get_options();
        ASSERT_TRUE(options.shape == t.Shape() && options.stride == t.Strides() && options.size == t.Size() &&
                    options.dtype == t.Dtype() && options.device == t.Device() && options.ndim == t.ndim())
            << text;
        if (t.getMeta() == nullptr) {
            return;
        }
        const tensorT::Tensor_Meta& meta = *t.getMeta();
        ASSERT_TRUE(meta.GetShape() == t.Shape() && meta.GetStride() == t.Strides() && meta.GetSize() == t.Size() &&
                    meta.GetDtype() == t.Dtype() && meta.GetDevice() == t.Device())
            << text;
        const bool one_place =
            std::all_of(t.Strides().begin(), t.Strides().end(), [](std::int64_t step) { return step == 0; });
        std::int64_t lowest = t.StorageOffset(), highest = lowest;
        ASSERT_TRUE(lowest >= 0) << text;
        for (std::size_t d = 0; d < t.Shape().size() && !one_place && numel != 0; ++d) {
            ASSERT_GE(t.Shape()[d], 1) << text;
            (t.Strides()[d] < 0 ? lowest : highest) += t.Shape()[d] > 1 ? (t.Shape()[d] - 1) * t.Strides()[d] : 0;
        }
        const std::int64_t end = numel == 0 ? highest : highest + 1;
        ASSERT_TRUE(lowest >= 0 && end * t.itemsize() <= t.getStorage()->byte_size()) << text;
    }

    std::mt19937 engine_;
    std::vector<Storage> storages_;
    std::vector<TensorPtr> tensors_;
    std::string trace_;
    int accepted_ = 0;
    int refused_ = 0;
};

TEST(StateWalk, NoTensorLeavesItsStorage) {
    for (unsigned seed = 1; seed <= 30 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        StateWalk(seed).run(400);
    }
}

}  // namespace
}  // namespace ornik::test
