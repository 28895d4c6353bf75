// The target of a request: which object it names, and how the origin is asked for it. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace diskcached {

struct Target {
  std::string key;    // decoded, without the first '/'; empty for the root
  std::string query;  // as it came, without the '?'
};

// Reads "/a%20b?c" or "http://host/a%20b?c". None for what names nothing in safety: a broken escape, a zero
// byte, a segment "." or "..", characters that no target holds.
std::optional<Target> parseTarget(std::string_view text);

// Whether the query says no more than the method does: some clients of stores name their operation there.
bool repeatsMethod(std::string_view query, std::string_view method);

// An escape of two digits for every byte that is not a letter, a digit or one of "-._~/".
std::string encodePath(std::string_view key);
// The same parameters in the order and spelling that a signature is taken over.
std::string canonicalQuery(std::string_view query);

// The same query without the parameters that sign a request: what they hold is a secret, and for one store only.
std::string withoutSignature(std::string_view query);

// Bytes with each escape replaced; none when one is broken.
std::optional<std::string> decodeEscapes(std::string_view text);
// The decoded value of the first parameter with this name.
std::optional<std::string> queryValue(std::string_view query, std::string_view name);

}  // namespace diskcached
