#include "cli/searcher.h"
#include "kernel/base/kernel_error.h"

namespace tarv::cli {

// The engine replaces this body: build the index snapshot of `config` with
// `compatibility` and wrap it as a LoadedSnapshot.
std::shared_ptr<const LoadedSnapshot> loadSnapshot(const Configuration& /*config*/,
                                                   const std::shared_ptr<const Compatibility>& /*compatibility*/) {
  throw KernelError::io("search engine not available yet");
}

}  // namespace tarv::cli
