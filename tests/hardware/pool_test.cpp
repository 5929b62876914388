// The memory pool over a device that the test controls.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "hardware/dynamic_mem_pool.h"
#include "support/expect_error.h"

namespace ornik::test {
namespace {

using device::DynamicMemPool;
using device::PoolKind;

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
constexpr const char* pool_file = "src/hardware/dynamic_mem_pool.cpp";

// Gives what malloc gives, up to a limit in all and per block.
class TestPool : public DynamicMemPool {
  public:
    ~TestPool() override {
        for (const auto& [address, bytes] : blocks) {
            ::operator delete (address, std::align_val_t{512});
        }
    }

    std::uint64_t capacity = 1024 * MiB;       // what the device says it can give
    std::uint64_t largest_block = 1024 * MiB;  // larger requests are refused
    bool refuses_free = false;
    std::map<void*, std::uint64_t> blocks;
    std::vector<std::uint64_t> asked;

  protected:
    void* AllocDeviceMem(std::uint64_t bytes) override {
        asked.push_back(bytes);
        if (bytes > largest_block) {
            return nullptr;
        }
        void* address = ::operator new (bytes, std::align_val_t{512});
        blocks[address] = bytes;
        return address;
    }
    bool FreeDeviceMem(void* address, std::uint64_t /*bytes*/) override {
        if (refuses_free) {
            return false;
        }
        blocks.erase(address);
        ::operator delete (address, std::align_val_t{512});
        return true;
    }
    std::uint64_t FreeDeviceMemSize() const override {
        std::uint64_t used = 0;
        for (const auto& [address, bytes] : blocks) {
            used += bytes;
        }
        return capacity - std::min(used, capacity);
    }
};

TEST(Pool, SizeClasses) {
    struct Case {
        std::uint64_t request, used, block;
        PoolKind kind;
    };
    const Case cases[] = {
        {0, 512, 2 * MiB, PoolKind::small},
        {1, 512, 2 * MiB, PoolKind::small},
        {512, 512, 2 * MiB, PoolKind::small},
        {513, 1024, 2 * MiB, PoolKind::small},
        {MiB, MiB, 2 * MiB, PoolKind::small},
        {MiB + 1, MiB + 512, 20 * MiB, PoolKind::large},
        {10 * MiB - 1, 10 * MiB, 10 * MiB, PoolKind::large},
        {10 * MiB - 512, 10 * MiB - 512, 20 * MiB, PoolKind::large},
        {10 * MiB, 10 * MiB, 10 * MiB, PoolKind::large},
        {10 * MiB + 1, 10 * MiB + 512, 12 * MiB, PoolKind::large},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        TestPool pool;
        void* address = pool.AllocTensorMem(c.request);
        EXPECT_EQ(pool.asked, std::vector<std::uint64_t>{c.block});
        EXPECT_EQ(pool.totals(c.kind).used, c.used);
        EXPECT_EQ(pool.totals(c.kind).idle, c.block - c.used);
        std::memset(address, 1, c.request);
        pool.FreeTensorMem(address);
        EXPECT_EQ(pool.totals(c.kind).used, 0U);
        EXPECT_EQ(pool.totals(c.kind).idle_bufs, 1U);
        EXPECT_EQ(pool.totals(c.kind).idle_blocks, 1U);
    }
}

TEST(Pool, RemembersTheMostInUse) {
    TestPool pool;
    void* small = pool.AllocTensorMem(1);
    void* large = pool.AllocTensorMem(2 * MiB);
    pool.FreeTensorMem(large);
    EXPECT_EQ(pool.used(), 512U);
    EXPECT_EQ(pool.peak(), 2 * MiB + 512);
    pool.reset_peak();
    EXPECT_EQ(pool.peak(), 512U);
    pool.FreeTensorMem(small);
    pool.AllocTensorMem(513);
    EXPECT_EQ(pool.used(), 1024U);
    EXPECT_EQ(pool.peak(), 1024U);
}

TEST(Pool, NeighboursMergeInAnyOrderOfRelease) {
    std::vector<int> order = {0, 1, 2};
    do {
        TestPool pool;
        char* bufs[3];
        for (char*& buf : bufs) {
            buf = static_cast<char*>(pool.AllocTensorMem(512));
        }
        EXPECT_EQ(bufs[1], bufs[0] + 512);
        EXPECT_EQ(bufs[2], bufs[1] + 512);
        void* guard = pool.AllocTensorMem(512);
        for (const int i : order) {
            pool.FreeTensorMem(bufs[i]);
        }
        EXPECT_EQ(pool.totals(PoolKind::small).idle_bufs, 2U);
        EXPECT_EQ(pool.AllocTensorMem(1536), bufs[0]);
        pool.FreeTensorMem(guard);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Pool, BestFitThenLowestAddress) {
    TestPool pool;
    std::vector<void*> bufs;
    for (const std::uint64_t size : {2048, 512, 1024, 512, 1024, 512}) {
        bufs.push_back(pool.AllocTensorMem(size));
    }
    pool.FreeTensorMem(bufs[4]);
    pool.FreeTensorMem(bufs[2]);
    pool.FreeTensorMem(bufs[0]);
    EXPECT_EQ(pool.AllocTensorMem(1024), bufs[2]);
    EXPECT_EQ(pool.AllocTensorMem(700), bufs[4]);
    EXPECT_EQ(pool.AllocTensorMem(1500), bufs[0]);
}

TEST(Pool, FallsBackToTheExactSizeThenToReleasedBlocks) {
    TestPool pool;
    pool.capacity = 30 * MiB;
    void* first = pool.AllocTensorMem(5 * MiB);   // from a block of 20 MiB
    void* second = pool.AllocTensorMem(9 * MiB);  // fits behind it
    void* third = pool.AllocTensorMem(8 * MiB);   // no room for 20 MiB more: a block of 8 MiB
    EXPECT_EQ(pool.asked, (std::vector<std::uint64_t>{20 * MiB, 8 * MiB}));
    pool.FreeTensorMem(first);
    pool.FreeTensorMem(second);
    // 21 MiB need the idle block of 20 MiB to go back first.
    void* fourth = pool.AllocTensorMem(21 * MiB);
    EXPECT_EQ(pool.asked.back(), 21 * MiB);
    EXPECT_EQ(pool.totals(PoolKind::large).blocks, 2U);
    pool.FreeTensorMem(third);
    pool.FreeTensorMem(fourth);

    testing::internal::CaptureStdout();
    expect_error([&] { pool.AllocTensorMem(31 * MiB); },
                 "Memory not enough: alloc size[0]MB is smaller than required size[31]MB.", "AllocTensorMem",
                 pool_file);
    const std::string frame = "\n\n##########################################\n\n\n";
    const auto part = [](const std::string& name) {  // The last line names the large pool in both.
        return "\n\n" + name + " pool total_used_mem memory 0MB.\n" + name + " pool total_idle_mem memory 0MB.\n" +
               name + " pool block counts 0\n" + name + " pool idle block counts 0\nlarge pool idle membuf counts 0\n";
    };
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              frame + part("large") + part("small") +
                  "device_free_mem_size[30]MB.\n"
                  "Total allocated memory[0]MB , used memory[0]MB , idle memory[0]MB .\n" +
                  frame);
    EXPECT_TRUE(pool.blocks.empty());
    EXPECT_NO_THROW(pool.FreeTensorMem(pool.AllocTensorMem(MiB)));
}

TEST(Pool, DeviceThatRefusesWithoutWarning) {
    TestPool pool;
    pool.largest_block = 4 * MiB;
    void* address = pool.AllocTensorMem(3 * MiB);
    EXPECT_EQ(pool.asked, (std::vector<std::uint64_t>{20 * MiB, 3 * MiB}));
    pool.FreeTensorMem(address);
    pool.refuses_free = true;
    expect_error([&] { pool.ReleaseDeviceRes(); }, "Free device memory error.", "ReleaseDeviceRes", pool_file);
    EXPECT_EQ(pool.totals(PoolKind::large).idle, 3 * MiB);
    pool.refuses_free = false;
    pool.ReleaseDeviceRes();
    EXPECT_EQ(pool.totals(PoolKind::large).blocks, 0U);
}

TEST(Pool, RefusesAddressesItDoesNotKnow) {
    TestPool pool;
    char* address = static_cast<char*>(pool.AllocTensorMem(2048));
    void* neighbour = pool.AllocTensorMem(512);
    int outside = 0;
    expect_error([&] { pool.FreeTensorMem(nullptr); }, "device_addr == nullptr\n", "FreeTensorMem", pool_file);
    expect_error([&] { pool.FreeTensorMem(&outside); }, "Can't find the device address .", "FreeTensorMem", pool_file);
    expect_error([&] { pool.FreeTensorMem(address + 512); }, "Can't find the device address .", "FreeTensorMem",
                 pool_file);
    pool.FreeTensorMem(address);
    expect_error([&] { pool.FreeTensorMem(address); }, "Find the mem_buf is not used.", "FreeTensorMem", pool_file);
    EXPECT_EQ(pool.totals(PoolKind::small).used, 512U);
    pool.FreeTensorMem(neighbour);
}

TEST(Pool, RefusesWhatNoDeviceHasAfterTheLastStepLikeAnyRequest) {
    for (const auto& [bytes, mebibytes] : {std::pair{std::uint64_t{1} << 62, "4398046511104"},
                                           {std::uint64_t{1} << 63, "8796093022208"},
                                           {~std::uint64_t{0}, "17592186044415"},
                                           {40 * MiB, "40"}}) {
        for (const bool refuses_free : {false, true}) {
            TestPool pool;
            pool.capacity = 30 * MiB;
            pool.FreeTensorMem(pool.AllocTensorMem(MiB));
            pool.refuses_free = refuses_free;
            testing::internal::CaptureStdout();
            expect_error(
                [&, request = bytes] { pool.AllocTensorMem(request); },
                std::string("Memory not enough: alloc size[0]MB is smaller than required size[") + mebibytes + "]MB.",
                "AllocTensorMem", pool_file);
            EXPECT_NE(testing::internal::GetCapturedStdout(), "");
            EXPECT_EQ(pool.blocks.size(), refuses_free ? 1U : 0U);
            EXPECT_NO_THROW(pool.FreeTensorMem(pool.AllocTensorMem(MiB)));
        }
    }
}

// Random requests against a list of what is handed out: no two overlap, and everything is idle in the end.
void churn(TestPool& pool, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::pair<unsigned char*, std::size_t>> held;
    for (int step = 0; step < 2000; ++step) {
        if (held.size() < 40 && random() % 2 == 0) {
            const std::size_t size = random() % (step % 50 == 0 ? 3 * MiB : 5000) + 1;
            auto* address = static_cast<unsigned char*>(pool.AllocTensorMem(size));
            std::memset(address, static_cast<int>(seed), std::min<std::size_t>(size, 600));
            held.emplace_back(address, size);
        } else if (!held.empty()) {
            const std::size_t i = random() % held.size();
            for (std::size_t byte = 0; byte < std::min<std::size_t>(held[i].second, 600); ++byte) {
                ASSERT_EQ(held[i].first[byte], seed);
            }
            pool.FreeTensorMem(held[i].first);
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    for (const auto& [address, size] : held) {
        pool.FreeTensorMem(address);
    }
}

TEST(Pool, ServesManyThreads) {
    TestPool pool;
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        threads.emplace_back([&pool, seed] { churn(pool, seed); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const PoolKind kind : {PoolKind::large, PoolKind::small}) {
        const DynamicMemPool::Totals totals = pool.totals(kind);
        EXPECT_EQ(totals.used, 0U);
        EXPECT_EQ(totals.idle_blocks, totals.blocks);
        EXPECT_EQ(totals.idle_bufs, totals.blocks);
        EXPECT_GT(totals.blocks, 0U);
    }
    testing::internal::CaptureStdout();
    EXPECT_NO_THROW(pool.DumpDynamicMemPoolInfo());
    testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace ornik::test
