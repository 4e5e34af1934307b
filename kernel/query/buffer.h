#pragma once
// Buffer<T>: a std::vector whose elements start uninitialised, and whose
// large allocations sit on 2 MiB boundaries with large pages requested. The
// index builders fill arrays of millions of rows from parallel chunks; a plain
// vector would first zero every byte on the calling thread, a serial pass that
// costs as much as the parallel work that overwrites it. And their sorts and
// gathers touch those arrays at random, where small pages spend much of the
// time on address translation and page faults. Only for trivially
// constructible element types that are written before they are read.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/platform/memory_advice.h"
#include "kernel/base/column.h"

namespace tarv {

template <class T>
struct DefaultInitAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = DefaultInitAllocator<U>;
  };
  DefaultInitAllocator() noexcept = default;
  template <class U>
  DefaultInitAllocator(const DefaultInitAllocator<U>&) noexcept {}

  static constexpr std::size_t kLargePage = std::size_t(2) << 20;
  static constexpr std::size_t kLargeBytes = std::size_t(8) << 20;

  T* allocate(std::size_t n) {
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kLargeBytes) return std::allocator<T>::allocate(n);
    const std::size_t rounded = (bytes + kLargePage - 1) / kLargePage * kLargePage;
    void* p = std::aligned_alloc(kLargePage, rounded);
    if (p == nullptr) throw std::bad_alloc();
    platform::adviseLargePages(p, rounded);  // before the first touch, so faults bring large pages
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t n) noexcept {
    if (n * sizeof(T) < kLargeBytes) std::allocator<T>::deallocate(p, n);
    else std::free(p);
  }

  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(p)) U;  // default-initialised: no zeroing
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    std::allocator_traits<std::allocator<T>>::construct(static_cast<std::allocator<T>&>(*this), p,
                                                        std::forward<Args>(args)...);
  }
};

template <class T>
using Buffer = std::vector<T, DefaultInitAllocator<T>>;

// A column that owns the buffer (moved, not copied).
template <class T>
Column<T> toColumn(Buffer<T>&& values) {
  auto holder = std::make_shared<const Buffer<T>>(std::move(values));
  return Column<T>(holder->data(), holder->size(), holder);
}

}  // namespace tarv
