#pragma once
// AISearch::AIError: why the assistant could not produce a query. Every case
// has the one message the person sees (Chinese, shown as it stands); `status`
// also carries the provider's HTTP status code and message, and `transport`
// the network library's own description (time-out, refused connection).
// A plain value; thrown by the providers and by generate().

#include <exception>
#include <string>

namespace tarv::AISearch {

class AIError : public std::exception {
 public:
  enum class Kind {
    invalidBaseURL,       // the chat-completions base URL does not parse
    missingAnthropicKey,  // no key stored for the messages provider
    unrecognisedReply,    // a 2xx reply without the expected members
    refusal,              // the model declined the request
    appleUnavailable,     // the on-device model cannot be used here
    noQuery,              // no usable intent, even after the repair request
    status,               // an HTTP failure reported by the provider
    transport,            // the exchange itself failed
  };

  static AIError invalidBaseURL();
  static AIError missingAnthropicKey();
  static AIError unrecognisedReply();
  static AIError refusal();
  static AIError appleUnavailable();
  static AIError noQuery();
  // "AI 接口出错（<code>）：<message>".
  static AIError status(long code, std::string providerMessage);
  // The transport's description, passed on as it is.
  static AIError transport(std::string description);

  Kind kind() const noexcept { return kind_; }
  long statusCode() const noexcept { return statusCode_; }          // `status` only, else 0
  const std::string& providerMessage() const noexcept { return providerMessage_; }  // `status` only
  const std::string& message() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  AIError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}
  Kind kind_;
  long statusCode_ = 0;
  std::string providerMessage_;
  std::string message_;
};

}  // namespace tarv::AISearch
