// Child processes after fork(): they find every lock free, and give the parent's bits.
#if defined(__unix__) || defined(__APPLE__)

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "random/generator.h"
#include "support/tensors.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik::test {
namespace {

// Bytes of work that runs in parallel, allocates and draws numbers.
std::string work() {
    set_random_seed(5);
    const TensorPtr a(Tensor::randn({300, 300}, 0, 1, 0, dtype::float32));
    const TensorPtr b(a->add_tensor(a.get()));
    const TensorPtr c(Tensor::zeros({300, 300}, 0, dtype::float32));
    Tensor::dot(a.get(), 0, b.get(), 1, c.get(), 0);
    const TensorPtr total(sum(c.get()));
    return bytes_of(c) + bytes_of(total);
}

// 0 when the child's work gave `expected`, 1 when it gave something else, -1 when it hung and was ended.
int child_result(const std::string& expected) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() == expected ? 0 : 1);
    }
    for (int tick = 0; tick < 6000; ++tick) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
}

TEST(Fork, ChildrenOfAProcessThatWorkedInParallelGiveTheSameBits) {
    const std::string expected = work();
    EXPECT_EQ(child_result(expected), 0);
    EXPECT_EQ(work(), expected);
}

TEST(Fork, FindsNoLockHeldWhileOtherThreadsAllocateAndDraw) {
    const std::string expected = work();
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!done) {
                const TensorPtr t(Tensor::randn({40, 40}, 0, 1, 0, dtype::float32));
                (void)generator::next_random32();
                const generator::Generator own(7);
            }
        });
    }
    for (int i = 0; i < 15; ++i) {
        EXPECT_EQ(child_result(expected), 0) << "child " << i;
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace ornik::test

#endif
