#pragma once
// ArgumentList: the command line's arguments less the program name. Each
// option reader removes what it consumed, so what remains at the end is the
// free text of the command (the query). Not shared between threads.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarv::cli {

// A mistake on the command line; the front end prints the message with
// status 2, exactly like a kernel error.
class UsageError : public std::exception {
 public:
  explicit UsageError(std::string message) : message_(std::move(message)) {}
  const std::string& message() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

class ArgumentList {
 public:
  explicit ArgumentList(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}
  // argv[1] .. argv[argc - 1].
  static ArgumentList fromMain(int argc, const char* const* argv);

  // The value after the first element equal to `name`, removing both; nothing
  // when absent. Throws UsageError(name + " needs a value") when it is last.
  std::optional<std::string> take(std::string_view name);
  // Removes the first element equal to `name`; whether there was one.
  bool flag(std::string_view name);
  // Removes and returns the first element; nothing when the list is empty.
  std::optional<std::string> popFront();

  bool empty() const noexcept { return arguments_.empty(); }
  const std::vector<std::string>& remaining() const noexcept { return arguments_; }

 private:
  std::vector<std::string> arguments_;
};

}  // namespace tarv::cli
