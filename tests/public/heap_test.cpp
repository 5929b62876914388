// Where a library and a program have heaps of their own, what the library made goes back to the library's.
#if defined(_WIN32)

#include <gtest/gtest.h>
#include <ornik.h>

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <vector>

namespace {

// The program's heap: what comes back and is not from here has the wrong address. Single-threaded, as the tests are.
alignas(64) std::byte arena[std::size_t{64} << 20];
std::size_t used = 0;
int strangers = 0;

}  // namespace

void* operator new(std::size_t bytes) {
    const std::size_t whole = (bytes + 63) / 64 * 64;
    if (whole > sizeof(arena) - used) {
        std::abort();
    }
    used += whole;
    return arena + used - whole;
}
void operator delete(void* memory) noexcept {
    strangers += memory != nullptr && (memory < arena || memory >= arena + sizeof(arena)) ? 1 : 0;
}
void operator delete(void* memory, std::size_t /*bytes*/) noexcept { operator delete(memory); }

namespace {

using namespace ornik;

TEST(Heap, WhatTheLibraryMadeGoesBackToIt) {
    struct Row {
        const char* name;
        std::function<void()> make_and_delete;
    };
    const std::vector<Row> rows{
        {"Tensor",
         [] {
             delete Tensor::ones({2, 3}, 0, dtype::float32);
         }},
        {"view",
         [] {
             const std::unique_ptr<Tensor> t(Tensor::ones({2, 3}, 0, dtype::float32));
             delete t->view({6});
         }},
        {"Layer", [] { delete _Dense(3, true, "dense"); }},
        {"Loss", [] { delete getLoss("mse"); }},
        {"KTensor",
         [] {
             const KTensor w = KTensor({{1.0F, 2.0F}}).requires_grad();
             sum(w * w).backward();
             EXPECT_EQ(sum(w.grad()).item<float>(), 6);
         }},
        {"module",
         [] {
             Linear linear(2, 3);
             EXPECT_EQ(sum(linear(KTensor({{1.0F, 2.0F}})) * 0).item<float>(), 0);
         }},
    };
    for (const Row& row : rows) {
        strangers = 0;
        row.make_and_delete();
        EXPECT_EQ(strangers, 0) << row.name;
    }
}

}  // namespace

#endif
