// Requests that the cache has no part in: handed to the store, and its answer to the client.
#pragma once

#include <string_view>

#include "serve/exchange.h"

namespace diskcached {

// `why` is the word of Cache-Status. Throws Refused, Overloaded while nothing was sent; ClientGone.
asio::awaitable<void> passThrough(Exchange& exchange, std::string_view why);

// The head of the store's answer, without what is about its connection and what this server says itself.
AnswerHead relayedHead(const OriginReply& reply);
// The client's headers that the store is given.
Headers forwardedHeaders(const Exchange& exchange);

}  // namespace diskcached
