// The k-th allocation fails, for every k until a call succeeds: operator new first, then the pool's device. After each
// failure the operands hold what they held, nothing is lost, and the same call still works.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>

#include "apis/ornik.h"
#include "failing_allocation.h"
#include "optimizers/optimizers.h"
#include "random/generator.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/nn/attention.h"
#include "tensor/nn/interpolate.h"
#include "tensor/nn/packing.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/sorting.h"
#include "tensor/tensor_math/tensor_arithmetic.h"
#include "tensor/tensor_math/tensor_element_math.h"
#include "tensor/tensor_shape.h"
#include "tensor/tensor_sparse.h"

#if defined(__GNUC__) && !defined(__clang__)
// Once a pair is inlined, the compiler takes malloc's memory for that of its own operator new.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {

void* heap_memory(std::size_t bytes, std::size_t alignment) noexcept {
    if (ornik::test::heap_countdown.fails()) {
        return nullptr;
    }
    const std::size_t size = (bytes + alignment - 1) / alignment * alignment;
    return alignment <= alignof(std::max_align_t) ? std::malloc(size) : std::aligned_alloc(alignment, size);
}

void* heap_memory_or_throw(std::size_t bytes, std::size_t alignment = 1) {
    void* memory = heap_memory(bytes > 0 ? bytes : 1, alignment);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t bytes) { return heap_memory_or_throw(bytes); }
void* operator new[](std::size_t bytes) { return heap_memory_or_throw(bytes); }
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return heap_memory_or_throw(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return heap_memory(bytes, 1); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return heap_memory(bytes, 1); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace ornik::test {
namespace {

using device::AllocatorConfig;
using device::PoolKind;

// Operands for all calls. Everything is small, but for `big`, which is worth a region, and its transposed twin.
struct World {
    TensorPtr a, t, d, c, i, m, v, s, h, q, cube, four, image, weight, bias, channels, running[2], up, big, twin,
        state[3];

    World() {
        a = make<float>({4, 6}, ramp<float>(24));
        t = make<float>({4, 6}, ramp<float>(24), Layout::transposed);
        d = make<double>({4, 6}, ramp<double>(24), Layout::every_other);
        c = make<Complex<float>>({4, 6}, counted<Complex<float>>(24));
        i = make<std::int64_t>({4, 6}, counted<std::int64_t>(24));
        m = make<bool>({4, 6}, counted<bool>(24));
        v = make<std::int64_t>({3}, {2, 0, 3});
        s = make<std::int64_t>({4, 2}, {0, 1, 5, 4, 3, 2, 1, 0});
        h = make<double>({2, 3, 3}, {2, 1, 0, 1, 3, 1, 0, 1, 4, 5, 0, 1, 0, 6, 2, 1, 2, 7});
        q = make<double>({6, 6}, ramp<double>(36));
        cube = make<float>({2, 4, 6}, ramp<float>(48), Layout::transposed);
        four = make<float>({2, 2, 4, 6}, ramp<float>(96));
        image = make<float>({2, 4, 6, 6}, ramp<float>(288));
        weight = make<float>({4, 4, 3, 3}, ramp<float>(144));
        bias = make<float>({4}, ramp<float>(4));
        channels = make<float>({4}, ramp<float>(4));
        running[0] = make<float>({4}, ramp<float>(4));
        running[1] = make<float>({4}, ramp<float>(4), Layout::every_other);
        up = make<float>({6, 6}, ramp<float>(36));
        static const std::vector<float> many = ramp<float>(40000);
        big = make_empty({200, 200}, dtype::float32);
        twin = make_empty({200, 200}, dtype::float32, Layout::transposed);
        std::memcpy(big->getRawData(), many.data(), 160000);
        std::memcpy(twin->getRawData(), many.data(), 160000);
        for (TensorPtr& moment : state) {
            moment = make<float>({4, 6}, ramp<float>(24));
        }
    }

    // Positive and below 1.
    template <typename T>
    static std::vector<T> ramp(int n) {
        std::vector<T> values;
        for (int k = 0; k < n; ++k) {
            values.push_back(static_cast<T>(k * 7 % n + 1) / static_cast<T>(n + 1));
        }
        return values;
    }

    std::string bytes() const {
        std::string all;
        for (const TensorPtr* tensor :
             {&a,          &t,          &d,    &c,    &i,     &m,        &v,        &s,
              &h,          &q,          &cube, &four, &image, &weight,   &bias,     &channels,
              &running[0], &running[1], &up,   &big,  &twin,  &state[0], &state[1], &state[2]}) {
            const auto storage = (*tensor)->getStorage();
            all.append(static_cast<const char*>(storage->getRawData()), static_cast<std::size_t>(storage->byte_size()));
            all +=
                shape_text((*tensor)->Shape()) + shape_text((*tensor)->Strides()) + std::to_string((*tensor)->Size());
        }
        return all;
    }
};

void drop(Tensor* result) { delete result; }
void drop(const std::vector<Tensor*>& results) {
    for (const Tensor* result : results) {
        delete result;
    }
}
template <typename... Results>
void drop(Results... results) {
    (drop(results), ...);
}

// Factories of layers and losses give null when there is no memory.
template <typename T>
std::unique_ptr<T> made(T* object) {
    return object != nullptr ? std::unique_ptr<T>(object) : throw std::bad_alloc();
}

struct Call {
    std::string name;
    std::function<void(World&)> run;
    bool in_steps = false;  // asks for memory on its way: what has been written or drawn by then stays so
};

// A call that gives tensors, one that changes its operands, and one that goes through a layer.
// clang-format off
#define GIVES(...) Call{#__VA_ARGS__, []([[maybe_unused]] World& w) { drop(__VA_ARGS__); }}
#define DOES(...) Call{#__VA_ARGS__, []([[maybe_unused]] World& w) { __VA_ARGS__; }}
#define STEPS(...) Call{#__VA_ARGS__, []([[maybe_unused]] World& w) { __VA_ARGS__; }, true}
#define LAYER(factory, ...) Call{#factory, []([[maybe_unused]] World& w) { \
    const auto layer = made<Layer>(factory);              \
    const TensorPtr result(layer->__VA_ARGS__);           \
    const std::unique_ptr<Layer> copy(new Layer(*layer)); \
}}
// clang-format on

TensorPtr own(Tensor* t) { return TensorPtr(t); }

std::vector<Call> catalogue() {
    return {
        // Creation, conversion, printing.
        GIVES(Tensor::zeros({3, 4}, 0, dtype::int16)), GIVES(Tensor::full({3, 4}, 1.5, 0, dtype::complex64)),
            GIVES(Tensor::arange(0, 9, 2, 0, dtype::float32)), GIVES(Tensor::linspace(0, 1, 20, 0, dtype::float64)),
            GIVES(Tensor::eye(3, 4, 1, dtype::int8)), GIVES(Tensor::empty_strided({2, 3}, {1, 2}, 6)),
            GIVES(Tensor::empty_using_tensor_options(*w.a->get_options())), GIVES(w.t->clone()),
            GIVES(w.t->astype(dtype::int32)), GIVES(w.a->tril(1)), GIVES(w.c->CPU(0)),
            DOES(copy_tensor(w.t.get(), w.a.get())), DOES(w.a->copy_from_(w.d.get())),
            DOES(w.t->CopyToTargetWithDtype(w.a.get(), dtype::float32, true)), DOES(w.t->fill_(3.0)),
            DOES(w.d->reshape_({24})), DOES(w.t->Print()), DOES(w.a->updateShape({2, 12})),
            DOES(w.t->updateStrides({6, 1})), DOES(w.t->reshape_({24})),
            DOES(w.a->initialize_none_tensor({3, 3, 3}, dtype::float64, 0, layout::dense)),
            DOES(w.a->init_sparse_tensor({3, 3, 3}, dtype::float64, 0, layout::csr, {})),
            DOES(w.a->init_none_tensor_with_shared_storage({2, 2, 2}, {0, 0, 1}, 6, 0, w.t->getStorage(), 0, 1)),
            DOES(copy_tensor(w.t.get(), own(Tensor::zeros({}, 0, dtype::float32)).get())),
            // Views and reshaping.
            GIVES(Tensor::broadcast(w.bias.get(), w.channels.get())), GIVES(Tensor::broadcast_to(w.bias.get(), {5, 4})),
            GIVES(w.cube->permute({2, 0, 1})), GIVES(w.cube->view({2, 4, 6})), GIVES(w.cube->reshape({8, 6})),
            GIVES(w.cube->flip({0, 2})), GIVES(w.cube->unsqueeze(1)), GIVES(tile(w.t.get(), {2, 1, 3})),
            GIVES(TileGrad(w.t.get(), {2, 3}, {2, 2})), GIVES(concat({w.a.get(), w.t.get()}, 1)),
            GIVES(stack({w.a.get(), w.t.get(), w.a.get()}, 1)),
            GIVES(view_as_complex(own(w.s->astype(dtype::float32)).get())),
            GIVES(reshape_permute_select(w.cube.get(), 3)),
            // Selection and indexing.
            GIVES(w.t->select({"1:3"})), GIVES(w.t->select_ndim({"1:3", "0,2,5"})),
            GIVES(w.a->select_ndim_grad(w.bias.get(), {"1", "1:5"})),
            DOES(w.a->set_select_ndim(w.bias.get(), {"1", "1:5"})),
            DOES(w.a->set_select_ndim_grad(w.bias.get(), {"1", "1:5"})), GIVES(index_select(w.t.get(), 0, w.v.get())),
            GIVES(gather(w.t.get(), 1, w.s.get())),
            GIVES(scatter(w.a.get(), 1, w.s.get(), own(w.s->astype(dtype::float32)).get())),
            DOES(scatter_add_(w.a.get(), 1, w.s.get(), own(Tensor::ones({4, 2}, 0, dtype::float32)).get())),
            DOES(index_add_(w.a.get(), 0, w.v.get(), own(w.t->select_ndim({"0:3"})).get())),
            GIVES(index_get(w.t.get(), {w.v.get(), w.v.get()})), GIVES(index_get(w.a.get(), {w.m.get()})),
            DOES(index_put_(w.a.get(), {w.v.get(), nullptr}, own(w.up->select_ndim({"0:3"})).get(), true)),
            GIVES(masked_select(w.t.get(), w.m.get())), GIVES(nonzero(w.m.get())),
            // Arithmetic and element mathematics.
            GIVES(w.a->add_tensor(w.d.get())), GIVES(w.t->div_tensor(w.i.get())),
            GIVES(w.big->add_tensor(w.twin.get())), GIVES(w.a->mult_scalar(2)),
            DOES(w.a->add_tensor_inplace(w.t.get())), DOES(w.twin->mult_tensor_inplace(w.big.get())),
            DOES(w.t->div_scalar_inplace(3.0F)), DOES(add(2, w.a.get(), 1, w.t.get(), w.a.get(), 1)),
            GIVES(Tensor::add_tensors_list({w.a.get(), w.t.get(), w.a.get()})), GIVES(w.t->exp()),
            DOES(w.twin->tanh_inplace()), GIVES(w.c->log()), GIVES(gelu_grad(w.t.get(), w.t.get(), w.a.get())),
            GIVES(pow_dy_grad(w.a.get(), w.t.get(), w.a.get())), GIVES(where(w.m.get(), w.a.get(), w.t.get())),
            // Reductions, running results, sorting.
            GIVES(sum(w.twin.get(), {0})), GIVES(mean(w.i.get(), {1}, true)),
            GIVES(var_grad(w.bias.get(), own(w.a->permute({1, 0})).get(), {0})), GIVES(logsumexp(w.t.get(), {0, 1})),
            GIVES(max_grad(w.bias.get(), w.a.get(), {1})), GIVES(median(w.t.get(), {1})),
            GIVES(argmax(w.cube.get(), {1})), GIVES(trace(w.up.get())), GIVES(cumsum(w.t.get(), 0)),
            GIVES(cumprod_grad(w.a.get(), w.t.get(), 1)), GIVES(softmax(w.twin.get(), 0)),
            GIVES(log_softmax_grad(w.a.get(), w.t.get(), 1)), GIVES(sort(w.t.get(), 0)), GIVES(topk(w.twin.get(), 3)),
            GIVES(unique(w.i.get())), GIVES(searchsorted(w.v.get(), w.i.get())),
            // Products and linear algebra.
            DOES(Tensor::dot(w.a.get(), 0, w.t.get(), 1, own(w.up->select_ndim_without_copy({"0:4", "0:4"})).get(), 1)),
            DOES(Tensor::dot(w.a.get(), 1, w.t.get(), 0, w.up.get(), 1)),
            DOES(Tensor::matmul4D(w.four.get(), 0, w.four.get(), 1, own(Tensor::zeros({2, 2, 4, 4}, 0, 6)).get())),
            GIVES(kron(w.a.get(), w.t.get())),
            GIVES(kron_grad_t1(own(kron(w.a.get(), w.t.get())).get(), w.a.get(), w.t.get())), GIVES(eigh(w.h.get())),
            GIVES(eigvalsh_grad(own(eigvalsh(w.h.get())).get(), w.h.get())),
            GIVES(to_dense(own(to_csr(w.t.get())).get())),
            GIVES(sparse_dot(own(to_coo(w.a.get())).get(), own(w.t->transpose()).get())),
            // Random numbers.
            GIVES(Tensor::randn({5, 5}, 0, 1, 0, dtype::float32)), GIVES(Tensor::permutation(9, 0, dtype::int64)),
            STEPS(drop(Tensor::multinomial(w.a.get(), 3, false))), STEPS(w.t->fill_rand_uniform_inplace(1)),
            // Networks.
            GIVES(scaled_dot_product_attention(w.four.get(), w.four.get(), w.four.get())),
            GIVES(interpolate(w.image.get(), {9, 4}, "bilinear")), GIVES(pack_sequences(w.cube.get(), Packing({3, 4}))),
            LAYER(_Conv2D(4, {3, 3}, {1, 1}, std::vector<int>{1, 1}, true, 1, {1, 1}, ""),
                  forward_dyn(w.weight.get(), w.bias.get(), w.image.get())),
            LAYER(_Dense(4, true, ""),
                  forward_dyn(own(w.up->select_ndim_without_copy({":", "0:4"})).get(), w.bias.get(), w.t.get())),
            LAYER(_Activation("gelu", {}, ""), forward_dyn(w.t.get())),
            DOES(const auto norm = made<Layer>(_BatchNormalization(true, 0.1F, 1e-5F, "")); drop(norm->forward_dyn(
                w.channels.get(), w.bias.get(), w.image.get(), true, w.running[0].get(), w.running[1].get()))),
            LAYER(_GroupNormalization(2, 4, true, 1e-5F, ""),
                  forward_dyn(w.channels.get(), w.bias.get(), w.image.get(), true)),
            LAYER(_MaxPool2D({2, 2}, {2, 2}, std::vector<int>{0, 0}, ""), forward_dyn(w.image.get())),
            LAYER(_PixelShuffle(2, ""), forward_dyn(w.image.get())),
            DOES(const auto loss = made<Loss>(getLoss("mse")); drop(loss->loss_forward(w.a.get(), w.t.get()))),
            DOES(sgd_step(w.a.get(), w.t.get(), 0.1F, w.state[0].get(), 0.9F, true)),
            DOES(adam_step(w.a.get(), w.t.get(), 0.1F, 0.9F, 0.99F, 1e-8F, 1, w.state[0].get(), w.state[1].get(),
                           w.state[2].get(), true)),
            DOES(rmsprop_step(w.t.get(), w.a.get(), 0.1F, 0.9F, 1e-8F, w.state[0].get())),
            DOES(adam_delta_step(w.t.get(), w.a.get(), 0.1F, 0.9F, 1e-8F, w.state[0].get(), w.state[1].get())),
    };
}

std::uint64_t used_memory() {
    const device::DynamicMemPool* pool = AllocatorConfig::Get().cpu_pool();
    return pool == nullptr ? 0 : pool->totals(PoolKind::small).used + pool->totals(PoolKind::large).used;
}

// Calls `run` with its k-th allocation failing, k = 1, 2, ..., until it succeeds.
void fail_every_allocation(const Call& call, Countdown& countdown, const std::function<void()>& before_each) {
    SCOPED_TRACE(call.name);
    for (std::int64_t k = 1; k < 2000; ++k) {
        before_each();
        const std::uint64_t used = used_memory();
        bool failed = false;
        {
            World world;
            const std::string bytes = world.bytes();
            const std::uint64_t drawn = generator::default_generator()->counter();
            bool thrown = true;
            countdown.arm(k);
            try {
                call.run(world);
                failed = countdown.disarm();
                thrown = false;
            } catch (const std::bad_alloc&) {
                failed = countdown.disarm();
            } catch (const Error& error) {
                failed = countdown.disarm();
                ASSERT_EQ(error.kind(), ErrorKind::memory) << error.what();
            }
            ASSERT_TRUE(failed || !thrown);
            if (thrown && !call.in_steps) {
                EXPECT_TRUE(world.bytes() == bytes) << "operands changed by failure " << k;
                EXPECT_EQ(generator::default_generator()->counter(), drawn) << "numbers drawn before failure " << k;
            }
        }
        ASSERT_EQ(used_memory(), used) << "lost by failure " << k;
        if (!failed) {
            return;
        }
    }
    ADD_FAILURE() << "never succeeds";
}

class Faults : public testing::Test {
  protected:
    Faults() {
        World world;  // The pool, the workers and the generator exist.
        drop(world.big->add_tensor(world.twin.get()), Tensor::randn({2}, 0, 1, 0, dtype::float32));
        testing::internal::CaptureStdout();  // Dumps of the pool.
    }
    ~Faults() override {
        AllocatorConfig::Get().cpu_pool()->DumpDynamicMemPoolInfo();
        const std::string text = testing::internal::GetCapturedStdout();
        if (HasFailure()) {
            std::fputs(text.c_str(), stderr);  // What failed stands between the dumps.
        }
    }
};

TEST_F(Faults, OfTheHeapLeaveEverythingAsItWas) {
    for (const Call& call : catalogue()) {
        fail_every_allocation(call, heap_countdown, [] {});
    }
}

TEST_F(Faults, OfTheDeviceLeaveEverythingAsItWas) {
    FailingDevice device;
    AllocatorConfig& config = AllocatorConfig::Get();
    config.SetCPUDevice(&device);
    for (const Call& call : catalogue()) {
        fail_every_allocation(call, device.countdown, [&] { config.cpu_pool()->ReleaseDeviceRes(); });
    }
    config.cpu_pool()->ReleaseDeviceRes();
    config.SetCPUDevice(nullptr);
}

}  // namespace
}  // namespace ornik::test
