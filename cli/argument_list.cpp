#include "cli/argument_list.h"

#include <algorithm>

namespace tarv::cli {

ArgumentList ArgumentList::fromMain(int argc, const char* const* argv) {
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) arguments.emplace_back(argv[i]);
  return ArgumentList(std::move(arguments));
}

std::optional<std::string> ArgumentList::take(std::string_view name) {
  auto found = std::find(arguments_.begin(), arguments_.end(), name);
  if (found == arguments_.end()) return std::nullopt;
  if (found + 1 == arguments_.end()) throw UsageError(std::string(name) + " needs a value");
  std::string value = std::move(*(found + 1));
  arguments_.erase(found, found + 2);
  return value;
}

bool ArgumentList::flag(std::string_view name) {
  auto found = std::find(arguments_.begin(), arguments_.end(), name);
  if (found == arguments_.end()) return false;
  arguments_.erase(found);
  return true;
}

std::optional<std::string> ArgumentList::popFront() {
  if (arguments_.empty()) return std::nullopt;
  std::string first = std::move(arguments_.front());
  arguments_.erase(arguments_.begin());
  return first;
}

}  // namespace tarv::cli
