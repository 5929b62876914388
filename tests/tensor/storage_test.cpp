// Foreign memory, write counters, and the parts of the exception.
#include <limits>
#include <memory>
#include <thread>

#include "support/expect_error.h"
#include "tensor/tensor.h"
#include "utils/logging.h"

namespace ornik::test {
namespace {

using tensorT::Tensor_storage;

TEST(ForeignMemory, IsReadAndWrittenInPlaceAndGivenBackOnceByTheLastShare) {
    float values[6] = {0, 1, 2, 3, 4, 5};
    std::thread::id freed_on;
    int calls = 0;
    std::unique_ptr<Tensor> view;
    {
        const auto storage = Tensor_storage::from_foreign(values, 6, dtype::float32, [&] {
            ++calls;
            freed_on = std::this_thread::get_id();
        });
        EXPECT_TRUE(storage->is_foreign() && !storage->read_only());
        view.reset(share_storage_tensor(storage, {2, 2}, {3, 1}, dtype::float32, 1));
        storage->set_read_only(true);
        EXPECT_TRUE(view->getStorage()->read_only());
    }
    view->getStorage()->set_read_only(false);
    view->add_scalar_inplace(10.0F);
    EXPECT_EQ(std::vector<float>(values, values + 6), (std::vector<float>{0, 11, 12, 3, 14, 15}));
    EXPECT_EQ(calls, 0);
    std::thread::id worker;
    std::thread([&] {
        worker = std::this_thread::get_id();
        view.reset();
    }).join();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(freed_on, worker);
    EXPECT_FALSE(std::make_shared<Tensor_storage>(0, 1, dtype::int8)->is_foreign());
}

TEST(ForeignMemory, IsGivenBackWhenItIsRefused) {
    alignas(16) char memory[32] = {};
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    struct Row {
        void* data;
        std::int64_t size, dtype;
        std::string message;
    };
    int calls = 0;
    int rows = 0;
    for (const Row& row :
         {Row{memory, 1, 10, "Not valid data type."}, Row{memory, 1, -1, "Not valid data type."},
          Row{memory, -1, dtype::int8, "Foreign memory can not hold -1 elements of int8."},
          Row{memory, most / 4, dtype::complex128,
              "Foreign memory can not hold " + std::to_string(most / 4) + " elements of complex128."},
          Row{nullptr, 2, dtype::int16, "Foreign memory for 2 elements of int16 is null."},
          Row{memory + 4, 1, dtype::complex64, "Foreign memory for complex64 should be aligned to 8 bytes."}}) {
        expect_error([&] { (void)Tensor_storage::from_foreign(row.data, row.size, row.dtype, [&] { ++calls; }); },
                     row.message, "ornik::tensorT::Tensor_storage::from_foreign", "src/tensor/tensor_storage.cpp");
        EXPECT_EQ(calls, ++rows) << row.message;
    }
    EXPECT_NO_THROW((void)Tensor_storage::from_foreign(memory + 8, 1, dtype::complex128, nullptr));
    EXPECT_NO_THROW((void)Tensor_storage::from_foreign(nullptr, 0, dtype::int16, {}));
}

TEST(StorageVersion, RecordedWritesRaiseBothCounters) {
    Tensor_storage storage(0, 1, dtype::float32);
    EXPECT_EQ(storage.version(), 0U);
    storage.note_write();
    storage.note_recorded_write();
    storage.note_write();
    EXPECT_EQ(storage.version(), 3U);
    EXPECT_EQ(storage.recorded_version(), 1U);
}

TEST(ErrorParts, TellKindMessageAndLocationAlsoInCopies) {
    struct Row {
        std::function<void()> call;
        ErrorKind kind;
        std::string message, location;
    };
    for (const Row& row : {Row{[] { ErrorMsg("abc", "", true); }, ErrorKind::argument, "abc", ""},
                           Row{[] { ErrorMsg("abc", "X", true); }, ErrorKind::argument, "abc", "X"},
                           Row{[] {
                                   fail(ErrorKind::state, Where{"f", "g.cpp", 3}, "a ", 1);
                               },
                               ErrorKind::state, "a 1", " FILE: g.cpp  LINE: 3  FUNC: f\n"},
                           Row{[] { (void)Tensor::empty({1}, 1000, dtype::int8); }, ErrorKind::device,
                               "Not compiled for GPU, set device = 0 or device = None", ""}}) {
        try {
            row.call();
            ADD_FAILURE() << row.message;
        } catch (const Error& thrown) {
            const Error error = thrown;
            EXPECT_EQ(error.kind(), row.kind);
            EXPECT_EQ(error.message(), row.message);
            EXPECT_EQ(error.location(), row.location);
            EXPECT_EQ(error.what(), row.message + (row.location.empty() ? "" : " (" + row.location + ")"));
        }
    }
}

}  // namespace
}  // namespace ornik::test
