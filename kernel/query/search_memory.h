#pragma once
// SearchMemory: the up-front check that a search's ordered result fits in the
// memory the process can still take, so a query that matches too much fails
// with one clear message instead of the process being killed mid-search.
// Pure arithmetic plus one reading of the system's figures; thread safe.
//
// Errors: KernelError::invalid(kMessage).

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarv::SearchMemory {

inline constexpr std::string_view kMessage = "Search result exceeds available memory; narrow the query";

// Below this many bytes a result is not checked: reading the system's figures
// would cost more than the result itself.
inline constexpr std::uint64_t kUncheckedBytes = std::uint64_t{64} << 20;

// The bytes that ordering `total` matches out of `rows` rows allocates: four
// per member id, plus one bit per row for the membership test when not every
// row matches. 0 when every row matches in ascending order (the stored order
// is handed out as it is) or nothing matches.
std::uint64_t resultBytes(std::int64_t total, std::int64_t rows, bool descending) noexcept;

// Throws KernelError::invalid(kMessage) when `needed` exceeds `available`.
// An unknown figure (nothing) never refuses.
void check(std::uint64_t needed, std::optional<std::uint64_t> available);

// check() against `budget` when given, else against
// platform::availableMemoryBytes() (read only above kUncheckedBytes).
void checkResult(std::int64_t total, std::int64_t rows, bool descending, std::optional<std::uint64_t> budget);

}  // namespace tarv::SearchMemory
