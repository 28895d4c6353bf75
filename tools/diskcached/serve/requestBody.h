// Takes a request's body whole before anything is done with it.
#pragma once

#include "serve/exchange.h"
#include "serve/spool.h"

namespace diskcached {

// The body, for as long as the spool lives. Throws Refused: 413, 507 when the disk has no room for it, 400 when it is
// not what the client's digests say, 501 when it comes in signed pieces.
asio::awaitable<std::span<const std::byte>> takeBody(Exchange& exchange, Spool& spool);

}  // namespace diskcached
