#include "utils/object_cache.h"

#include <array>
#include <new>

#include "hardware/memory_poison.h"

namespace ornik::detail {

namespace {

#if defined(ORNIK_ADDRESS_SANITIZER)
constexpr std::size_t largest = 0;
#else
constexpr std::size_t largest = 512;
#endif
constexpr std::size_t step = 64;
constexpr int most_kept = 64;  // of each size

struct Link {
    Link* next;
};

struct Shelf {
    Link* first = nullptr;
    int count = 0;
};

// Without a destructor: objects with static storage duration outlive those of the threads.
struct Shelves {
    std::array<Shelf, 512 / step + 1> of_size;
    bool open = false;
};
ORNIK_NEAR_TLS thread_local constinit Shelves shelves;

std::size_t index_of(std::size_t bytes) { return (bytes + step - 1) / step; }

struct Closing {
    ~Closing() {
        shelves.open = false;
        for (Shelf& shelf : shelves.of_size) {
            while (Link* const link = shelf.first) {
                shelf.first = link->next;
                ::operator delete(link);
            }
        }
    }
};

void open_shelves() {
    thread_local Closing closing;
    shelves.open = true;
}

}  // namespace

void* take_object_memory(std::size_t bytes) {
    if (bytes > largest) {
        return ::operator new(bytes);
    }
    Shelves& mine = shelves;
    Shelf& shelf = mine.of_size[index_of(bytes)];
    if (Link* const link = shelf.first) {
        shelf.first = link->next;
        --shelf.count;
        return link;
    }
    if (!mine.open) {
        open_shelves();
    }
    return ::operator new(index_of(bytes) * step);
}

void give_object_memory(void* memory, std::size_t bytes) noexcept {
    if (bytes <= largest) {
        Shelves& mine = shelves;
        Shelf& shelf = mine.of_size[index_of(bytes)];
        if (mine.open && shelf.count < most_kept) {
            shelf.first = ::new (memory) Link{shelf.first};
            ++shelf.count;
            return;
        }
    }
    ::operator delete(memory);
}

}  // namespace ornik::detail
