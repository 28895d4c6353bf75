// PUT and DELETE of an object.
#pragma once

#include "serve/exchange.h"

namespace diskcached {

// The store first, then the cache; with write-back a PUT is safe on disk first and at the store later. Throw
// Refused, Overloaded while nothing was sent; ClientGone.
asio::awaitable<void> putObject(Exchange& exchange);
asio::awaitable<void> deleteObject(Exchange& exchange);

}  // namespace diskcached
