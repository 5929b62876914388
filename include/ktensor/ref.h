// ref.h: a counted pointer to an object that counts itself. Internal.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace ornik::autograd {

/// How objects are counted: they have an atomic member `references`, 1 when they are made, and a function destroy(T*)
/// beside them. Types that are incomplete where they are pointed to have overloads of their own.
template <typename T>
void add_count(T* object) noexcept {
    object->references.fetch_add(1, std::memory_order_relaxed);
}
template <typename T>
void drop_count(T* object) noexcept {
    if (object->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        destroy(object);
    }
}

template <typename T>
class Ref {
  public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
    Ref(const Ref& other) noexcept : object_(other.object_) { count(); }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() { drop(object_); }

    /// Takes over one count.
    static Ref adopt(T* object) noexcept {
        Ref result;
        result.object_ = object;
        return result;
    }
    /// Counts one more.
    static Ref share(T* object) noexcept {
        Ref result;
        result.object_ = object;
        result.count();
        return result;
    }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    /// Gives the count away.
    T* release() noexcept { return std::exchange(object_, nullptr); }

    static void drop(T* object) noexcept {
        if (object != nullptr) {
            drop_count(object);
        }
    }

  private:
    void count() const noexcept {
        if (object_ != nullptr) {
            add_count(object_);
        }
    }

    T* object_ = nullptr;
};

/// A counted object that the first one to ask for it makes, whichever thread that is.
template <typename T>
class MadeOnce {
  public:
    MadeOnce() noexcept = default;
    MadeOnce(const MadeOnce&) = delete;
    MadeOnce& operator=(const MadeOnce&) = delete;
    ~MadeOnce() { Ref<T>::drop(object_.load(std::memory_order_relaxed)); }

    /// Null before anybody asked.
    T* get() const noexcept { return object_.load(std::memory_order_acquire); }
    T& made() {
        if (T* there = get()) {
            return *there;
        }
        Ref<T> mine = Ref<T>::adopt(new T);
        T* there = nullptr;
        const bool first = object_.compare_exchange_strong(there, mine.get(), std::memory_order_acq_rel);
        return first ? *mine.release() : *there;
    }

  private:
    std::atomic<T*> object_{nullptr};
};

}  // namespace ornik::autograd
