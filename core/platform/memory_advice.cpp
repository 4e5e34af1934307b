#include "core/platform/memory_advice.h"

#include <sys/mman.h>

namespace tarv::platform {

void adviseLargePages(void* data, std::size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
  // The result is ignored on purpose: without large pages the table works
  // the same, only slower.
  (void)madvise(data, bytes, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

}  // namespace tarv::platform
