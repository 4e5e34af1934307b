#pragma once
// KernelError: the kernel's one error type. Its message is what the user sees.
// `io` covers files, index files, sources and tables; `invalid` covers bad
// configuration, bad records, unsupported sorts and results that are too large.

#include <exception>
#include <string>

namespace tarv {

class KernelError : public std::exception {
 public:
  enum class Kind { io, invalid };

  static KernelError io(std::string message) { return KernelError(Kind::io, std::move(message)); }
  static KernelError invalid(std::string message) { return KernelError(Kind::invalid, std::move(message)); }

  Kind kind() const noexcept { return kind_; }
  const std::string& message() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

  friend bool operator==(const KernelError& a, const KernelError& b) {
    return a.kind_ == b.kind_ && a.message_ == b.message_;
  }

 private:
  KernelError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}
  Kind kind_;
  std::string message_;
};

// The io error for a failed system call on a file: "<what> <path>: <strerror(errno)>".
KernelError systemError(const std::string& what, const std::string& path, int error);

}  // namespace tarv
