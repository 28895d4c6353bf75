// What requests to the store are signed with. Never logged, never an argument.
#pragma once

#include <optional>
#include <string>

namespace diskcached {

struct Credentials {
  std::string accessKey;
  std::string secret;
  std::string sessionToken;
};

// From the file (lines "aws_access_key_id = ...", "aws_secret_access_key = ...", "aws_session_token = ..."),
// or when `path` is empty from the environment; none when that has none. Throws BadOptions for a file that
// others than its owner may read, that is not this user's, or that lacks a line.
std::optional<Credentials> readCredentials(const std::string& path);

}  // namespace diskcached
