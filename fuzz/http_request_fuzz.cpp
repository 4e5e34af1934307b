// libFuzzer target: the service's request parser and form decoding on
// arbitrary bytes, fed whole and in pieces as a connection would see them.
// Build with clang -fsanitize=fuzzer,address; crashes, reads out of bounds
// and broken invariants abort.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "kernel/base/kernel_error.h"
#include "kernel/service/form_fields.h"
#include "kernel/service/http_request_parser.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void formsOf(const tarv::HttpRequest& request) {
  try {
    (void)tarv::form::parse(request.body, {"query", "sort"});
  } catch (const tarv::KernelError&) {
  }
  try {
    const auto fields = tarv::form::parse(request.query.value_or(""), {"version", "offset", "limit"});
    (void)tarv::form::integer(fields.at("offset"));
  } catch (const tarv::KernelError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  // Small limits reach the limit paths with short inputs.
  const tarv::HttpRequestParser::Limits limits{512, 128};

  // The first byte picks where the input is cut, as two receives would cut it.
  const std::size_t cut = size == 0 ? 0 : data[0] % (size + 1);
  tarv::HttpRequestParser parser(limits);
  std::size_t offset = 0;
  for (int request = 0; request < 8 && offset <= size; ++request) {
    const std::string_view rest = bytes.substr(offset);
    tarv::HttpRequestParser::Result result = parser.parse(rest.substr(0, cut < offset ? rest.size() : cut - offset));
    if (result.status == tarv::HttpRequestParser::Status::incomplete) result = parser.parse(rest);
    if (result.status != tarv::HttpRequestParser::Status::complete) break;
    check(result.consumed > 0 && result.consumed <= rest.size());
    check(result.request.body.size() <= limits.maxBody);
    check(!result.request.bodyTooLarge || result.request.body.empty());
    formsOf(result.request);
    offset += result.consumed;
  }

  try {
    (void)tarv::form::decode(bytes);
  } catch (const tarv::KernelError&) {
  }
  return 0;
}
