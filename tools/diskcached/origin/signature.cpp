#include "origin/signature.h"

#include <fmt/format.h>

#include <array>
#include <map>
#include <string>

#include "origin/digest.h"

namespace diskcached {
namespace {

// By their names in lower case, in the order in which they are signed.
using SignedHeaders = std::map<std::string, std::string>;

std::string loweredName(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return lower;
}

// Without blanks at the ends, and one blank for several between words.
std::string withoutSpareBlanks(std::string_view value) {
  std::string out;
  for (const char c : value) {
    const bool isBlank = c == ' ' || c == '\t';
    if (!isBlank) {
      out += c;
    } else if (!out.empty() && out.back() != ' ') {
      out += ' ';
    }
  }
  if (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

SignedHeaders signedHeadersOf(const SignedParts& parts, const Headers& ours) {
  SignedHeaders all{{"host", std::string(parts.host)}};
  for (const Headers* some : {&parts.headers, &ours}) {
    for (const auto& [name, value] : *some) {
      std::string lower = loweredName(name);
      if (!lower.starts_with("x-amz-")) continue;
      const auto [at, isNew] = all.try_emplace(std::move(lower));
      at->second += (isNew ? "" : ",") + withoutSpareBlanks(value);
    }
  }
  return all;
}

// 20010909T014640Z
std::string signingTime(std::time_t when) {
  std::tm parts{};
  std::array<char, 32> text{};
  if (gmtime_r(&when, &parts) == nullptr) return "";
  return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts)};
}

std::string sha256OfText(std::string_view text) { return sha256Of(std::as_bytes(std::span(text))); }

}  // namespace

Headers signatureOf(const SignedParts& parts, const Credentials& credentials, std::string_view region,
                    std::time_t now) {
  const std::string time = signingTime(now), day = time.substr(0, 8);
  const std::string scope = fmt::format("{}/{}/s3/aws4_request", day, region);
  const std::string bodyDigest = sha256Of(parts.body);
  Headers ours{{"x-amz-content-sha256", bodyDigest}, {"x-amz-date", time}};
  if (!credentials.sessionToken.empty()) ours.emplace_back("x-amz-security-token", credentials.sessionToken);

  std::string lines, names;
  for (const auto& [name, value] : signedHeadersOf(parts, ours)) {
    lines += fmt::format("{}:{}\n", name, value);
    names += (names.empty() ? "" : ";") + name;
  }
  const std::string canonical =
      fmt::format("{}\n{}\n{}\n{}\n{}\n{}", parts.method, parts.path, parts.query, lines, names, bodyDigest);
  const std::string text = fmt::format("AWS4-HMAC-SHA256\n{}\n{}\n{}", time, scope, sha256OfText(canonical));
  std::string key = "AWS4" + credentials.secret;
  for (const std::string_view step :
       {std::string_view(day), region, std::string_view("s3"), std::string_view("aws4_request")})
    key = hmacSha256(key, step);
  ours.emplace_back("Authorization",
                    fmt::format("AWS4-HMAC-SHA256 Credential={}/{}, SignedHeaders={}, Signature={}",
                                credentials.accessKey, scope, names, hexOf(hmacSha256(key, text))));
  return ours;
}

}  // namespace diskcached
