#pragma once
// GrowBuffer<T>: a growing array of plain values on malloc/realloc, used by
// CatalogBuilder for its columns. Large blocks grow by remapping instead of
// copying, so building a big catalog touches each page about once, and
// `release` turns the memory into a Column's owned allocation without a copy.
// Not copyable; single-threaded. Growth throws std::bad_alloc.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "kernel/base/column.h"

namespace tarv {

template <class T>
class GrowBuffer {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  GrowBuffer() = default;
  GrowBuffer(const GrowBuffer&) = delete;
  GrowBuffer& operator=(const GrowBuffer&) = delete;
  ~GrowBuffer() { std::free(data_); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }
  T& operator[](std::size_t i) noexcept { return data_[i]; }
  const T& operator[](std::size_t i) const noexcept { return data_[i]; }
  const T* begin() const noexcept { return data_; }
  const T* end() const noexcept { return data_ + size_; }

  void push_back(T value) {
    if (size_ == capacity_) reserve(size_ + 1);
    data_[size_++] = value;
  }
  void append(const T* values, std::size_t count) {
    if (size_ + count > capacity_) reserve(size_ + count);
    if (count != 0) std::memcpy(data_ + size_, values, count * sizeof(T));
    size_ += count;
  }
  void resize(std::size_t count, T value) {
    if (count > capacity_) reserve(count);
    for (std::size_t i = size_; i < count; ++i) data_[i] = value;
    size_ = count;
  }

  Column<T> release() {
    if (size_ != 0 && size_ < capacity_) {
      if (void* shrunk = std::realloc(data_, size_ * sizeof(T))) data_ = static_cast<T*>(shrunk);
    }
    std::shared_ptr<const void> owner(data_, [](const void* p) { std::free(const_cast<void*>(p)); });
    Column<T> column(data_, size_, std::move(owner));
    data_ = nullptr;
    size_ = capacity_ = 0;
    return column;
  }

 private:
  void reserve(std::size_t needed) {
    std::size_t capacity = std::max<std::size_t>({needed, capacity_ * 2, 4096 / sizeof(T)});
    void* grown = std::realloc(data_, capacity * sizeof(T));
    if (!grown) throw std::bad_alloc();
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace tarv
