#include "core/ai/ai_error.h"

namespace tarv::AISearch {

AIError AIError::invalidBaseURL() { return AIError(Kind::invalidBaseURL, "AI 接口地址无效。"); }

AIError AIError::missingAnthropicKey() {
  return AIError(Kind::missingAnthropicKey, "请先在「设置 › AI」中填写 Anthropic API key。");
}

AIError AIError::unrecognisedReply() { return AIError(Kind::unrecognisedReply, "AI 接口返回了无法识别的内容。"); }

AIError AIError::refusal() { return AIError(Kind::refusal, "AI 拒绝了这个请求，请换个说法再试。"); }

AIError AIError::appleUnavailable() {
  return AIError(Kind::appleUnavailable,
                 "这台 Mac 不能使用 Apple 本机模型。请在「设置 › AI」中改用自己的 API key。");
}

AIError AIError::noQuery() { return AIError(Kind::noQuery, "AI 没有给出搜索条件，请换个说法再试。"); }

AIError AIError::status(long code, std::string providerMessage) {
  AIError error(Kind::status, "AI 接口出错（" + std::to_string(code) + "）：" + providerMessage);
  error.statusCode_ = code;
  error.providerMessage_ = std::move(providerMessage);
  return error;
}

AIError AIError::transport(std::string description) { return AIError(Kind::transport, std::move(description)); }

}  // namespace tarv::AISearch
