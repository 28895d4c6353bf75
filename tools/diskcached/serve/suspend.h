// How a coroutine of an I/O thread waits for what another thread does.
#pragma once

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <thread>

namespace diskcached {

namespace asio = boost::asio;

// Awaited, an operation gives its error code beside its result instead of throwing it.
constexpr auto AS_TUPLE = asio::as_tuple(asio::use_awaitable);

// Sleeps until the function that `start` is given is called, once and by any thread.
template <typename Start>
asio::awaitable<void> suspend(Start start) {
  auto initiate = [&start](auto handler) {
    const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    const auto executor = asio::get_associated_executor(*shared);
    start([shared, executor] {
      for (;;) {  // without memory, too: who is not woken waits for ever
        try {
          return asio::post(executor, [shared] { std::move (*shared)(); });
        } catch (const std::bad_alloc&) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
    });
  };
  co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(std::move(initiate),
                                                                       asio::use_awaitable);
}

}  // namespace diskcached
