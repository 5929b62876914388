// The allocator configuration, system memory, and tensors of many threads.
#include "hardware/allocator.h"

#include <atomic>
#include <cstring>
#include <thread>

#include "hardware/cpu_memory_allocator.h"
#include "hardware/memory_config.h"
#include "hardware/system_limits.h"
#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

TEST(Allocator, FlagOffRefusesNewBuffersAndStillTakesBackOldOnes) {
    EXPECT_TRUE(ConfigIfUseDynamicCPUMem());
    TensorPtr t(Tensor::empty({100}, 0, dtype::float32));
    const auto used = [] { return device::AllocatorConfig::Get().cpu_pool()->totals(device::PoolKind::small).used; };
    const std::uint64_t before = used();
    ConfigSetUseDynamicCPUMem(false);
    EXPECT_FALSE(ConfigIfUseDynamicCPUMem());
    expect_error([] { Tensor::empty({1}, 0, dtype::float32); }, " SetUseDynamicCPUMem(True) is need.",
                 "ornik::device::AllocTensorBuffer", "src/hardware/allocator.cpp");
    testing::internal::CaptureStdout();
    ConfigDumpCpuMemInfo();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    t.reset();
    ConfigSetUseDynamicCPUMem(true);
    EXPECT_EQ(used(), before - 512);
    testing::internal::CaptureStdout();
    ConfigDumpCpuMemInfo();
    EXPECT_NE(testing::internal::GetCapturedStdout(), "");
}

TEST(Allocator, ForeignPointersInAStorageAreLeftAlone) {
    int foreign = 0;
    const TensorPtr t(Tensor::empty({1}, 0, dtype::float32));
    void* const own = t->getRawData();
    t->getStorage()->setRawData(&foreign);
    TensorPtr view(share_storage_tensor(t->getStorage(), {1}, {1}, dtype::float32, 0));
    device::FreeTensorBuffer(0, &foreign);
    device::FreeTensorBuffer(0, nullptr);
    t->getStorage()->setRawData(own);
}

TEST(Allocator, GpuEntryPointsRefuse) {
    const std::string message = "GPU not compile yet.";
    const Refusal refusals[] = {
        {"ConfigSetUseDynamicGPUMem", [] { ConfigSetUseDynamicGPUMem(true); }, message},
        {"ConfigIfUseDynamicGPUMem", [] { ConfigIfUseDynamicGPUMem(); }, message},
        {"ConfigDumpGpuMemInfo", [] { ConfigDumpGpuMemInfo(1000); }, message},
        {"GetGPUDeviceCount", [] { GetGPUDeviceCount(); }, message},
        {"GetGPUFreeMemSize", [] { GetGPUFreeMemSize(1000); }, message},
    };
    expect_refusals(refusals, "ornik::", "src/hardware/memory_config.cpp");
    expect_error([] { device::AllocTensorBuffer(1000, 1, 4); }, message, "ornik::device::AllocTensorBuffer",
                 "src/hardware/allocator.cpp");
    EXPECT_FALSE(if_gpu_compiled() || if_mpi_compiled() || if_nccl_compiled() || maybe_set_cuda_lazy_init());
    char target = 1;
    const char source = 2;
    COPY_CPU_to_GPU(&target, &source, 1, 1000);
    EXPECT_EQ(target, 1);
}

TEST(Allocator, SystemMemoryIsAlignedAndGoesBack) {
    device::cpu::CPUMemoryAllocator allocator;
    for (const std::size_t bytes : {std::size_t{512}, std::size_t{4097}, std::size_t{3} << 20}) {
        void* address = allocator.allocate(bytes);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(address) % 4096, 0U);
        std::memset(address, 1, bytes);
        EXPECT_TRUE(allocator.free(address, bytes));
    }
    EXPECT_EQ(allocator.allocate(std::size_t{1} << 60), nullptr);
    EXPECT_GT(available_memory(), std::uint64_t{1} << 20);
    EXPECT_GE(container_processor_limit(), 1);
}

TEST(Allocator, TensorsComeAndGoOnManyThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int id = 0; id < 4; ++id) {
        threads.emplace_back([id, &wrong] {
            for (int i = 0; i < 300; ++i) {
                const TensorPtr t(Tensor::full({64 + i}, id, 0, dtype::int32));
                const TensorPtr sum(t->add_tensor(t.get()));
                wrong += static_cast<const std::int32_t*>(sum->getRawData())[63 + i] != 2 * id ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace ornik::test
