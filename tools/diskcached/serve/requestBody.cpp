#include "serve/requestBody.h"

#include <fmt/core.h>

#include <cstring>

namespace diskcached {

namespace {

constexpr uint64_t SPOOLED_AT_ONCE = 64 << 10;

void check(int errNo) {
  if (errNo != 0) throw Refused(507, fmt::format("the body can't be kept: {}", std::strerror(errNo)));
}

}  // namespace

asio::awaitable<std::span<const std::byte>> takeBody(Exchange& exchange, Spool& spool) {
  if (!exchange.hasBody()) co_return std::span<const std::byte>();
  WorkerPool& disks = exchange.service.disks;
  const uint64_t size = std::min(SPOOLED_AT_ONCE, exchange.bodyLength().value_or(SPOOLED_AT_ONCE));
  const auto share = exchange.service.uploadMemory.take(size);
  if (!share) throw Overloaded();
  check(co_await disks.run([&] { return spool.open(exchange.options->root); }));
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(size);
  const std::span<std::byte> piece(buffer.get(), size);
  while (const size_t got = co_await exchange.receiveBody(piece)) {
    check(co_await disks.run([&] { return spool.append(piece.first(got)); }));
  }
  std::span<const std::byte> bytes;
  check(co_await disks.run([&] { return spool.map(bytes); }));
  co_return bytes;
}

}  // namespace diskcached
