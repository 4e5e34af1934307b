#pragma once
// IndexFile: the flat container that stores a catalog and its search index on
// disk. Layout: the 8-byte magic "TARVIDX" 0x01, a signed 64-bit little-endian
// trailer offset, raw little-endian arrays ("sections") each starting on a
// 64-byte boundary, and a compact JSON trailer with sorted keys naming every
// section ("sections": [{"name","offset","bytes"}...], "format": 4) beside the
// writers' own meta values.
//
// Writer: writes to "<url>.partial" (mode 0600), flushes it to the disk and
// renames it over `url` only in finish(), so neither a crash nor a power cut
// leaves a half-written file under the final name. Single-threaded; an
// unfinished writer abandons its side file when it is destroyed. Throws
// KernelError::io.
//
// Reader: maps the whole file read-only and private; the descriptor is closed
// once mapped. Columns handed out point into the mapping and share its
// ownership, so the mapping lives as long as the reader or any column taken
// from it. Immutable after construction: safe to share between threads.
// Every failure is a KernelError::io; a reader that fails leaves nothing
// mapped and no descriptor open.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/base/json.h"
#include "kernel/base/kernel_error.h"

namespace tarv {

// Element types a section may hold: fixed-width integers and UTF-16 units.
template <class T>
concept IndexElement = std::is_integral_v<T> && !std::is_same_v<T, bool>;

class IndexFile {
 public:
  static constexpr char kMagic[8] = {'T', 'A', 'R', 'V', 'I', 'D', 'X', '\x01'};
  static constexpr std::int64_t kHeaderBytes = 16;
  static constexpr std::int64_t kAlignment = 64;
  static constexpr int kFormat = 4;

  // Where one section's bytes lie in the file.
  struct Section {
    std::int64_t offset = 0;
    std::int64_t bytes = 0;
  };

  class Writer {
   public:
    // Removes a stale side file, creates "<url>.partial" empty with mode 0600
    // and writes the header. Throws KernelError::io("Cannot create index file")
    // when the side file cannot be created, or the system error of a failed write.
    explicit Writer(std::filesystem::path url);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Appends a section: zero padding to the next multiple of 64, then the
    // values as they lie in memory. An empty array still records a section.
    template <IndexElement T>
    void add(std::string_view name, std::span<const T> values) {
      addBytes(name, values.data(), values.size() * sizeof(T));
    }
    template <IndexElement T>
    void add(std::string_view name, const std::vector<T>& values) {
      add(name, std::span<const T>(values));
    }
    template <IndexElement T>
    void add(std::string_view name, const Column<T>& values) {
      add(name, values.span());
    }
    void addBytes(std::string_view name, const void* data, std::size_t bytes);

    // The trailer values set so far; "format" and "sections" are set by finish().
    json::Value& meta() { return meta_; }

    // Starts writing what was added so far to the disk without waiting for
    // it, so that finish() waits only for the rest. Ignores failures (finish()
    // reports them).
    void startWriteback() noexcept;

    // Writes the trailer, patches its offset into the header, flushes the
    // file's data to the disk, closes the side file and renames it over `url`,
    // so a power cut leaves the old name, or the new one over complete data.
    // A failure leaves the side file for abandon().
    void finish();
    // Closes and removes the side file, ignoring failures. Safe to call twice.
    void abandon() noexcept;

    const std::filesystem::path& url() const noexcept { return url_; }
    const std::filesystem::path& partial() const noexcept { return partial_; }
    std::int64_t position() const noexcept { return position_; }

   private:
    void writeAll(const void* data, std::size_t bytes);

    std::filesystem::path url_;
    std::filesystem::path partial_;
    int handle_ = -1;
    json::Value sections_ = json::Value::array();
    json::Value meta_ = json::Value::object();
    std::int64_t position_ = 0;
    bool done_ = false;
  };

  class Reader {
   public:
    // Opens, maps and checks the file: "Cannot open index file", "Invalid
    // index file", "Cannot map index file", "Unsupported index file", "Invalid
    // index section", or "Invalid index trailer: <reason>" for JSON that does
    // not parse.
    explicit Reader(const std::filesystem::path& url);

    // The section as a column that keeps the mapping alive. Throws
    // KernelError::io("Missing index section " + name) when the section is
    // absent or its length is not a multiple of sizeof(T), and
    // KernelError::io("Misaligned index section " + name) when its offset is
    // not a multiple of sizeof(T).
    template <IndexElement T>
    Column<T> column(std::string_view name) const {
      const Section s = section<T>(name);
      return Column<T>(reinterpret_cast<const T*>(base_ + s.offset), static_cast<std::size_t>(s.bytes) / sizeof(T),
                       mapping_);
    }

    // The trailer value `key` as a signed integer. Throws
    // KernelError::io("Missing index value " + key) when absent or not an integer.
    std::int64_t integer(std::string_view key) const;
    bool has(std::string_view name) const;
    // The whole trailer object.
    const json::Value& meta() const noexcept { return meta_; }
    const std::map<std::string, Section, std::less<>>& sections() const noexcept { return sections_; }
    const std::byte* base() const noexcept { return base_; }
    std::int64_t size() const noexcept { return size_; }

   private:
    template <class T>
    Section section(std::string_view name) const {
      auto it = sections_.find(name);
      if (it == sections_.end() || it->second.bytes % static_cast<std::int64_t>(sizeof(T)) != 0)
        throw KernelError::io("Missing index section " + std::string(name));
      if (it->second.offset % static_cast<std::int64_t>(sizeof(T)) != 0)
        throw KernelError::io("Misaligned index section " + std::string(name));
      return it->second;
    }

    json::Value meta_;
    std::shared_ptr<const void> mapping_;  // unmaps when the last column lets go
    const std::byte* base_ = nullptr;
    std::int64_t size_ = 0;
    std::map<std::string, Section, std::less<>> sections_;
  };
};

}  // namespace tarv
