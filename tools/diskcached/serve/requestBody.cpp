#include "serve/requestBody.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>

#include "http/headGuard.h"
#include "origin/digest.h"

namespace diskcached {

namespace {

constexpr uint64_t SPOOLED_AT_ONCE = 64 << 10;

void checkKept(int errNo) {
  if (errNo != 0) throw Refused(507, fmt::format("the body can't be kept: {}", std::strerror(errNo)));
}

// Every value under a name, since what is looked at must be all that somebody else may look at.
template <typename F>
void eachValue(const Exchange& exchange, const char* name, F visit) {
  const auto [first, last] = exchange.request().equal_range(name);
  for (auto field = first; field != last; ++field)
    visit(std::string_view(field->value().data(), field->value().size()));
}

bool has(std::string_view text, std::string_view lowerCasePart) {
  const auto isSame = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; };
  return std::search(text.begin(), text.end(), lowerCasePart.begin(), lowerCasePart.end(), isSame) !=
         text.end();
}

// The pieces' signatures stand in the body, for somebody who can check them; they are not to be kept with an object.
void refuseSignedPieces(const Exchange& exchange) {
  const auto refuse = [](bool isInPieces) {
    if (isInPieces)
      throw Refused(501, "bodies in signed chunks are not taken: sign the whole body, or none of it",
                    "NotImplemented");
  };
  eachValue(exchange, "x-amz-content-sha256",
            [&](std::string_view value) { refuse(has(value, "streaming-")); });
  eachValue(exchange, "content-encoding", [&](std::string_view value) { refuse(has(value, "aws-chunked")); });
  eachValue(exchange, "x-amz-decoded-content-length", [&](std::string_view) { refuse(true); });
}

bool isMd5(std::string_view text) {
  constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  return text.size() == 24 && text.find_first_not_of(DIGITS) == 22 && text.ends_with("==");
}

bool isSha256(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// What a client says of his body: nobody else can tell whether it came whole, since the store gets a signature of ours.
void checkDigests(const Exchange& exchange, std::span<const std::byte> bytes) {
  eachValue(exchange, "content-md5", [&](std::string_view value) {
    if (!isMd5(value)) throw Refused(400, "Content-MD5 is no digest", "InvalidDigest");
    if (value != md5Base64Of(bytes))
      throw Refused(400, "the body is not the one of Content-MD5", "BadDigest");
  });
  eachValue(exchange, "x-amz-content-sha256", [&](std::string_view value) {
    if (value == "UNSIGNED-PAYLOAD") return;
    if (!isSha256(value)) throw Refused(400, "x-amz-content-sha256 is no digest", "InvalidDigest");
    if (!equalsIgnoringCase(value, sha256Of(bytes)))
      throw Refused(400, "the body is not the one of x-amz-content-sha256", "XAmzContentSHA256Mismatch");
  });
}

asio::awaitable<std::span<const std::byte>> spoolBody(Exchange& exchange, Spool& spool) {
  WorkerPool& disks = exchange.service.disks;
  const uint64_t size = std::min(SPOOLED_AT_ONCE, exchange.bodyLength().value_or(SPOOLED_AT_ONCE));
  const auto share = exchange.service.uploadMemory.take(size);
  if (!share) throw Overloaded();
  checkKept(co_await disks.run([&] { return spool.open(exchange.options->root); }));
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(size);
  const std::span<std::byte> piece(buffer.get(), size);
  while (const size_t got = co_await exchange.receiveBody(piece)) {
    checkKept(co_await disks.run([&] { return spool.append(piece.first(got)); }));
  }
  std::span<const std::byte> bytes;
  checkKept(co_await disks.run([&] { return spool.map(bytes); }));
  co_return bytes;
}

}  // namespace

asio::awaitable<std::span<const std::byte>> takeBody(Exchange& exchange, Spool& spool) {
  refuseSignedPieces(exchange);
  std::span<const std::byte> bytes;
  if (exchange.hasBody()) bytes = co_await spoolBody(exchange, spool);
  if (bytes.empty()) {
    checkDigests(exchange, bytes);
    co_return bytes;
  }
  exchange.client.setDeadline(ClientStream::Time::max());
  co_await exchange.service.disks.run([&] {
    checkDigests(exchange, bytes);
    return true;
  });
  exchange.client.touch();
  co_return bytes;
}

}  // namespace diskcached
