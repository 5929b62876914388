// The k-th allocation fails, for every k until a call succeeds: operator new first, then the pool's device. After each
// failure the operands hold what they held, nothing is lost, and the same call still works.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "failing_allocation.h"
#include "hostile/calls.h"
#include "layers/functional/blocked_image.h"
#include "layers/functional/prepared_convolution.h"
#include "layers/functional/prepared_linear.h"

#if defined(__GNUC__) && !defined(__clang__)
// Once a pair is inlined, the compiler takes malloc's memory for that of its own operator new.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {

// Windows takes aligned memory back by a function of its own.
#if defined(_WIN32)
void* aligned_memory(std::size_t alignment, std::size_t bytes) { return _aligned_malloc(bytes, alignment); }
void give_back(void* memory) { _aligned_free(memory); }
#else
void* aligned_memory(std::size_t alignment, std::size_t bytes) { return std::aligned_alloc(alignment, bytes); }
void give_back(void* memory) { std::free(memory); }
#endif

void* heap_memory(std::size_t bytes, std::size_t alignment) noexcept {
    if (ornik::test::heap_countdown.fails()) {
        return nullptr;
    }
    const std::size_t size = (bytes + alignment - 1) / alignment * alignment;
    return alignment <= alignof(std::max_align_t) ? std::malloc(size) : aligned_memory(alignment, size);
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
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return heap_memory(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace ornik::test {
namespace {

using device::AllocatorConfig;
using device::PoolKind;

// Layers prepared for inference: their weights are made and lost with each call.
void run_prepared_layers(World& world, std::int64_t type) {
    const auto image = [&](Dims shape) { return world.keep(TensorPtr(Tensor::full(shape, 0.5F, 0, type))); };
    Tensor* const input = image({2, 24, 9, 9});
    const nn::PreparedConvolution dense(image({24, 24, 3, 3}), image({24}), {.padding = {{{1, 1}, {1, 1}}}});
    const nn::PreparedConvolution depthwise(image({24, 1, 3, 3}), nullptr, {.groups = 24});
    const nn::PreparedLinear linear(image({5, 24}), image({5}));
    world.take(depthwise(dense(input, nn::LayerEnd::gelu, input).get()).release());
    const nn::BlockedImage blocks = dense.blocked(input, nn::LayerEnd::relu);
    const nn::BlockedImage sum = depthwise.blocked(dense.blocked(blocks, nn::LayerEnd::none, &blocks));
    const TensorPtr means = nn::global_average(nn::max_pool(sum, {.kernel = {2, 2}, .stride = {2, 2}}));
    const TensorPtr rows(means->view({2, 24}));
    world.take(linear(rows.get(), nn::LinearEnd::silu).release());
}

// The public functions with their good arguments, and some with operands that are worth a region.
std::vector<CallRow> catalogue() {
    std::vector<CallRow> rows;
    for (const CallRow& row : call_rows()) {
        World world(row.operands, {});
        const bool works = run_call(row, world).refusal.empty();
        // Layers do not serve all forms.
        if (works && (row.name.find("_dyn of") == std::string::npos || !world.results.empty())) {
            rows.push_back(row);
        }
    }
    const auto add_large = [&rows](const std::string& name, Tensor* (*call)(Tensor*, Tensor*)) {
        rows.push_back({name, "", [call](World& world) {
                            Tensor* big = world.keep(TensorPtr(Tensor::full({200, 200}, 0.5F, 0, dtype::float32)));
                            Tensor* twin = world.keep(TensorPtr(big->transpose()));
                            world.take(call(big, twin));
                        }});
    };
    add_large("large sum", [](Tensor* big, Tensor* twin) { return big->add_tensor(twin); });
    add_large("large function in place", [](Tensor*, Tensor* twin) { return twin->tanh_inplace(), twin; });
    add_large("large reduction", [](Tensor*, Tensor* twin) { return sum(twin, {0}); });
    add_large("large softmax", [](Tensor*, Tensor* twin) { return softmax(twin, 0); });
    add_large("large product", [](Tensor* big, Tensor* twin) { return matmul(big, twin); });
    rows.push_back({"prepared layers", "", [](World& world) { run_prepared_layers(world, dtype::float32); }});
    rows.push_back(
        {"prepared layers of float64", "", [](World& world) { run_prepared_layers(world, dtype::float64); }});
    return rows;
}

// Two passes, each with memory of its own: the lower bound may be applied when there is none left for the upper one.
bool works_in_steps(const CallRow& row) { return row.name == "&Tensor::clamp_inplace"; }

std::uint64_t used_memory() {
    const device::DynamicMemPool* pool = AllocatorConfig::Get().cpu_pool();
    return pool == nullptr ? 0 : pool->totals(PoolKind::small).used + pool->totals(PoolKind::large).used;
}

// Calls `run` with its k-th allocation failing, k = 1, 2, ..., until it succeeds.
void fail_every_allocation(const CallRow& row, Countdown& countdown, const std::function<void()>& before_each) {
    SCOPED_TRACE(row.name);
    for (std::int64_t k = 1; k < 5000; ++k) {
        before_each();
        const std::uint64_t used = used_memory();
        bool failed = false;
        {
            World world(row.operands, {});
            const std::uint64_t drawn = generator::default_generator()->counter();
            bool thrown = true;
            countdown.arm(k);
            try {
                row.call(world);
                failed = countdown.disarm();
                thrown = false;
            } catch (const std::bad_alloc&) {
                failed = countdown.disarm();
            } catch (const Error& error) {
                failed = countdown.disarm();
                ASSERT_EQ(error.kind(), ErrorKind::memory) << error.what();
            }
            ASSERT_TRUE(failed || !thrown);
            if (thrown && !works_in_steps(row)) {
                for (const World::Operand& operand : world.operands) {
                    EXPECT_EQ(World::bytes(operand.tensor), operand.before) << "changed by failure " << k;
                }
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
        testing::internal::CaptureStdout();  // Dumps of the pool.
        rows_ = catalogue();                 // The pool, the workers and the generator exist.
    }
    ~Faults() override {
        AllocatorConfig::Get().cpu_pool()->DumpDynamicMemPoolInfo();
        const std::string text = testing::internal::GetCapturedStdout();
        if (HasFailure()) {
            std::fputs(text.c_str(), stderr);  // What failed stands between the dumps.
        }
    }
    std::vector<CallRow> rows_;
};

TEST_F(Faults, OfTheHeapLeaveEverythingAsItWas) {
    for (const CallRow& row : rows_) {
        fail_every_allocation(row, heap_countdown, [] {});
    }
}

TEST_F(Faults, OfTheDeviceLeaveEverythingAsItWas) {
    FailingDevice device;
    AllocatorConfig& config = AllocatorConfig::Get();
    config.SetCPUDevice(&device);
    for (const CallRow& row : rows_) {
        fail_every_allocation(row, device.countdown, [&] { config.cpu_pool()->ReleaseDeviceRes(); });
    }
    config.cpu_pool()->ReleaseDeviceRes();
    config.SetCPUDevice(nullptr);
}

}  // namespace
}  // namespace ornik::test
