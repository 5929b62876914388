// The allocator configuration, system memory, and threads.
#include "hardware/allocator.h"

#include <omp.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "hardware/cpu/cpu_memory_allocator.h"
#include "hardware/memory_config.h"
#include "hardware/parallel.h"
#include "hardware/system_limits.h"
#include "hardware/thread_config.h"
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
    const auto refused = [](const auto& call, const std::string& name) {
        expect_error(call, "GPU not compile yet.", "ornik::" + name, "src/hardware/memory_config.cpp");
    };
    refused([] { ConfigSetUseDynamicGPUMem(true); }, "ConfigSetUseDynamicGPUMem");
    refused([] { ConfigIfUseDynamicGPUMem(); }, "ConfigIfUseDynamicGPUMem");
    refused([] { ConfigDumpGpuMemInfo(1000); }, "ConfigDumpGpuMemInfo");
    refused([] { GetGPUDeviceCount(); }, "GetGPUDeviceCount");
    refused([] { GetGPUFreeMemSize(1000); }, "GetGPUFreeMemSize");
    expect_error([] { device::AllocTensorBuffer(1000, 1, 6); }, "GPU not compile yet.",
                 "ornik::device::AllocTensorBuffer", "src/hardware/allocator.cpp");
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

class Threads : public testing::Test {
  protected:
    ~Threads() override { ConfigSetNumThreads(4); }
};

TEST_F(Threads, EveryItemOnceAtMultiplesOfTheUnit) {
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        ConfigSetNumThreads(static_cast<int>(random() % 9 + 1));
        const std::int64_t n = random() % 2000;
        const std::int64_t unit = random() % 70 + 1;
        const std::int64_t grain = random() % 2 == 0 ? 1 : 1000;
        std::vector<std::atomic<int>> visits(static_cast<std::size_t>(n));
        std::atomic<int> misplaced{0};
        parallel_for(n, unit, grain, [&](std::int64_t begin, std::int64_t end) {
            misplaced += begin % unit != 0 || (end != n && end % unit != 0) ? 1 : 0;
            for (std::int64_t i = begin; i < end; ++i) {
                ++visits[static_cast<std::size_t>(i)];
            }
        });
        EXPECT_EQ(misplaced.load(), 0) << n << " " << unit;
        for (const auto& count : visits) {
            ASSERT_EQ(count.load(), 1) << n << " " << unit;
        }
    }
}

TEST_F(Threads, ErrorsReachTheCallerAndNestedRegionsStaySerial) {
    expect_error(
        [] {
            parallel_for(1000, 1, 1, [](std::int64_t, std::int64_t end) {
                if (end == 1000) {
                    fail(where("block"), "last");
                }
            });
        },
        "last", "block", "tests/hardware/allocator_test.cpp");
    std::atomic<int> ranges{0};
#pragma omp parallel num_threads(2)
    {
        parallel_for(1000, 1, 1,
                     [&](std::int64_t begin, std::int64_t end) { ranges += end - begin == 1000 ? 1 : 100; });
    }
    EXPECT_LE(ranges.load(), 2);
}

TEST_F(Threads, ConstructionAppliesTheTeamSize) {
    ConfigSetNumThreads(7);
    EXPECT_EQ(ConfigGetNumThreads(), 7);
    omp_set_num_threads(1);
    const TensorPtr t(Tensor::empty({1}, 0, dtype::float32));
    EXPECT_EQ(omp_get_max_threads(), 7);
    expect_error([] { ConfigSetNumThreads(0); }, "Number of threads should be >= 1, however it equals 0",
                 "ornik::ConfigSetNumThreads", "src/hardware/parallel.cpp");
    EXPECT_EQ(ConfigGetNumThreads(), 7);
}

}  // namespace
}  // namespace ornik::test
