#pragma once
// Column<T>: a read-only, contiguous run of fixed-width values whose memory is
// kept alive by `owner`: either an owned allocation (a column built from an
// in-memory vector) or the mapping of an index file. Copying a column copies
// the view and shares the owner; the values are never copied or mutated.
// Safe to read from any number of threads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tarv {

template <class T>
class Column {
 public:
  using value_type = T;

  Column() = default;
  // A view of `count` values at `data`, alive as long as `owner` is.
  Column(const T* data, std::size_t count, std::shared_ptr<const void> owner)
      : data_(data), count_(count), owner_(std::move(owner)) {}

  // A column that owns `values` (no copy: the vector is moved into the owner).
  static Column owned(std::vector<T> values) {
    auto holder = std::make_shared<const std::vector<T>>(std::move(values));
    const T* data = holder->data();
    std::size_t count = holder->size();
    return Column(data, count, std::move(holder));
  }

  std::size_t size() const noexcept { return count_; }
  bool empty() const noexcept { return count_ == 0; }
  const T* data() const noexcept { return data_; }
  const T& operator[](std::size_t i) const noexcept { return data_[i]; }
  const T* begin() const noexcept { return data_; }
  const T* end() const noexcept { return data_ + count_; }
  std::span<const T> span() const noexcept { return {data_, count_}; }
  const std::shared_ptr<const void>& owner() const noexcept { return owner_; }

 private:
  const T* data_ = nullptr;
  std::size_t count_ = 0;
  std::shared_ptr<const void> owner_;
};

}  // namespace tarv
