#include "serve/requestBody.h"

#include <fmt/core.h>

#include <cstring>

namespace diskcached {

namespace {

constexpr size_t SPOOLED_AT_ONCE = 256 << 10;

void check(int errNo) {
  if (errNo != 0) throw Refused(507, fmt::format("the body can't be kept: {}", std::strerror(errNo)));
}

}  // namespace

asio::awaitable<std::span<const std::byte>> takeBody(Exchange& exchange, Spool& spool) {
  if (!exchange.hasBody()) co_return std::span<const std::byte>();
  WorkerPool& disks = exchange.service.disks;
  const auto share = exchange.service.memory.take(SPOOLED_AT_ONCE);
  if (!share) throw Overloaded();
  check(co_await disks.run([&] { return spool.open(exchange.options->root); }));
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(SPOOLED_AT_ONCE);
  const std::span<std::byte> piece(buffer.get(), SPOOLED_AT_ONCE);
  while (const size_t got = co_await exchange.receiveBody(piece)) {
    check(co_await disks.run([&] { return spool.append(piece.first(got)); }));
  }
  std::span<const std::byte> bytes;
  check(co_await disks.run([&] { return spool.map(bytes); }));
  co_return bytes;
}

}  // namespace diskcached
