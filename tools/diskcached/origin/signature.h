// Version 4 signatures of requests to a store. A pure function.
//
// libcurl's own are not used: some versions' are wrong for a header that comes twice or without a value, and for two
// headers one of whose names begins with the other's, all of which a client's own metadata may be.
#pragma once

#include <cstddef>
#include <ctime>
#include <span>
#include <string_view>

#include "http/headers.h"
#include "options/credentials.h"

namespace diskcached {

// What is signed is what is sent: the path escaped, the query canonical.
struct SignedParts {
  std::string_view method, host, path, query;
  const Headers& headers;
  std::span<const std::byte> body;
};

// The headers to send besides. They sign the host, the body and every header x-amz-.
Headers signatureOf(const SignedParts& parts, const Credentials& credentials, std::string_view region,
                    std::time_t now);

}  // namespace diskcached
