#pragma once
// ByteBuffer: a growable byte array for answers written piece by piece. A
// writer asks for room once (an upper bound of what it is about to write),
// fills it through a raw pointer and then says where it stopped, so a loop
// over many small pieces pays one capacity test per record instead of one per
// byte. Growing never zero-fills, and clear() keeps the memory: one buffer per
// connection is reused for every answer it sends.
//
// Owns its bytes; one writer at a time. Throws std::bad_alloc only.

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace tarv {

class ByteBuffer {
 public:
  ByteBuffer() = default;
  explicit ByteBuffer(std::size_t capacity) { reserve(capacity); }
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;
  ByteBuffer(ByteBuffer&&) noexcept = default;
  ByteBuffer& operator=(ByteBuffer&&) noexcept = default;

  // A pointer to at least `bytes` writable bytes after the current end. Write
  // there, then call commit() with the end of what was written.
  char* room(std::size_t bytes) {
    if (capacity_ - size_ < bytes) grow(size_ + bytes);
    return data_.get() + size_;
  }
  // `end` is inside the room last handed out.
  void commit(char* end) noexcept { size_ = static_cast<std::size_t>(end - data_.get()); }

  void append(std::string_view bytes) {
    char* at = room(bytes.size());
    if (!bytes.empty()) std::memcpy(at, bytes.data(), bytes.size());
    size_ += bytes.size();
  }
  void push(char byte) {
    *room(1) = byte;
    ++size_;
  }

  void reserve(std::size_t capacity) {
    if (capacity > capacity_) grow(capacity);
  }
  void clear() noexcept { size_ = 0; }
  std::size_t size() const noexcept { return size_; }
  std::size_t capacity() const noexcept { return capacity_; }
  std::string_view view() const noexcept { return {data_.get(), size_}; }

 private:
  void grow(std::size_t needed) {
    std::size_t capacity = capacity_ < 256 ? 256 : capacity_;
    while (capacity < needed) capacity += capacity / 2;
    // new char[] leaves the bytes uninitialised: nothing is zero-filled.
    std::unique_ptr<char[]> bigger(new char[capacity]);
    if (size_ != 0) std::memcpy(bigger.get(), data_.get(), size_);
    data_ = std::move(bigger);
    capacity_ = capacity;
  }

  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace tarv
