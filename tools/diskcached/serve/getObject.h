// GET and HEAD of an object.
#pragma once

#include "serve/exchange.h"

namespace diskcached {

// Answers from the cache, through it, or around it when the object may not be kept. Throws Refused,
// Overloaded while nothing was sent; ClientGone.
asio::awaitable<void> getObject(Exchange& exchange);

}  // namespace diskcached
