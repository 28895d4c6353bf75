// Hostile heads and damaged index logs, many, the same each time. What the guard lets through must mean to the
// parser what it means to a reader who knows nothing but lines, and be harmless to what looks at it then.
#include <gtest/gtest.h>

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <random>
#include <regex>

#include "http/conditions.h"
#include "http/headGuard.h"
#include "http/httpDate.h"
#include "http/range.h"
#include "http/target.h"
#include "object/indexLog.h"
#include "tests/support/soak.h"
#include "tests/support/tempDir.h"

namespace diskcached {
namespace {

using boost::beast::http::field;
using Parser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;

struct Fuzzer {
  explicit Fuzzer(unsigned seed) : random(seed) { std::printf("seed %u\n", seed); }
  size_t below(size_t end) { return random() % end; }
  // One of the words, each of which ends in '|'.
  std::string any(std::string_view words) {
    const size_t at = words.find('|', below(words.size())) + 1, from = at == words.size() ? 0 : at;
    return std::string(words.substr(from, words.find('|', from) - from));
  }
  void damage(std::string& text, std::string_view words) {
    const size_t at = below(text.size() + 1), size = below(24), kind = below(6);
    if (kind == 0) text.insert(at, 1, static_cast<char>(below(256)));
    if (kind == 1) text.replace(at, 1, 1, "\r\n\t :,;-/%?#\0\"=+"[below(16)]);
    if (kind == 2) text.erase(at, size);
    if (kind == 3) text.insert(at, text.substr(at, size));
    if (kind >= 4) text.replace(at, below(2) * size, any(words));
  }
  std::mt19937 random;
};

constexpr std::string_view WORDS =
    "\r\n|\r\n\r\n|HTTP/1.0|/a/%2e%2e/b|/a%20b//c?x=%41&y|%00|%2541|http://h/k|, close|\r\nContent-Length: 5|"
    "\r\nTransfer-Encoding: chunked|\r\nConnection: close|\r\nConnection: keep-alive|\r\nRange: bytes=-5|"
    "\r\nRange: bytes=0-18446744073709551615|\r\nIf-None-Match: \"a,b\", W/\"c\"|\r\nIf-Range: \"a,b\"|"
    "\r\nExpires: Sun, 06 Nov 1994 08:49:37 GMT|\r\nExpires: Fri, 31 Dec 9999 23:59:59 GMT|";

// What the lines of a head with this name hold, with commas around.
std::string valuesOf(const std::string& head, const std::string& name) {
  const std::regex line("\r\n" + name + ":([^\r]*)", std::regex::icase);
  std::string all = ",";
  for (std::sregex_iterator at(head.begin(), head.end(), line), end; at != end; ++at) all += at->str(1) + ',';
  std::erase_if(all, [](char c) { return c == ' ' || c == '\t'; });
  for (char& c : all) c = static_cast<char>(std::tolower(c));
  return all;
}

void expectSameFraming(const Parser& parser, const std::string& head) {
  const bool isOld = head.find(" HTTP/1.0\r\n") < head.find("\r\n");
  const std::string other = isOld ? ",keep-alive," : ",close,", length = valuesOf(head, "content-length");
  EXPECT_EQ(parser.content_length().value_or(0), std::strtoull(&length[1], nullptr, 10));
  EXPECT_EQ(parser.chunked(), valuesOf(head, "transfer-encoding") == ",chunked,");
  EXPECT_EQ(parser.keep_alive(), isOld == (valuesOf(head, "connection").find(other) != std::string::npos));
  EXPECT_TRUE(head.substr(head.find(' ')).starts_with(' ' + std::string(parser.get().target()) + ' '));
}

void expectHarmless(const Parser::value_type& request) {
  const auto value = [&](field name) { return std::string(request[name]); };
  if (const auto target = parseTarget(request.target())) {
    const auto again = parseTarget('/' + encodePath(target->key));
    EXPECT_TRUE(again && again->key == target->key && again->query.empty());
    EXPECT_EQ(canonicalQuery(canonicalQuery(target->query)), canonicalQuery(target->query));
  }
  for (const uint64_t size : {uint64_t{0}, uint64_t{8}, UINT64_MAX}) {
    const auto [kind, part] = chooseRange(value(field::range), size);
    EXPECT_TRUE(kind != RangeChoice::Part ||
                (part.size > 0 && part.size <= size && part.from <= size - part.size));
  }
  const std::string tag = "\"a,b\"", ifRange = value(field::if_range), expires = value(field::expires);
  EXPECT_EQ(mayAnswerPart(ifRange, tag, "", 0), ifRange.empty() || ifRange == tag);
  EXPECT_NE(judge({{}, value(field::if_none_match), expires}, tag, expires), Verdict::Failed);
  const auto date = parseHttpDate(expires);
  const Clock::time_point now, until = describeObject(Metadata{{"expires", expires}}, 1, {}, now).freshUntil;
  EXPECT_EQ(until > now, expires.empty() || (date && *date > 0));
}

TEST(FuzzTest, WhatTheGuardLetsThroughHasOneMeaning) {
  Fuzzer fuzzer(7);
  size_t accepted = 0;
  for (size_t left = ObjectStore::soaked(30'000); left > 0 && !HasFailure(); --left) {
    std::string bytes = "PUT /a?b HTTP/1.1\r\nHost: h" + fuzzer.any(WORDS) + "\r\nX: y\r\n\r\nbody\r\n\r\n";
    for (size_t damages = fuzzer.below(6); damages > 0; --damages) fuzzer.damage(bytes, WORDS);
    const HeadEnd end = findHeadEnd(bytes, 0);
    const std::string head = bytes.substr(0, end.size);
    if (end.isBare || end.size == 0 || refusalOf(head).status != 0) continue;
    Parser parser;
    boost::system::error_code error;
    const size_t parsed = parser.put(boost::asio::const_buffer(bytes.data(), bytes.size()), error);
    if (error) continue;  // refused after all
    SCOPED_TRACE(testing::PrintToString(head));
    EXPECT_EQ(parsed, head.size());
    expectSameFraming(parser, head);
    expectHarmless(parser.get());
    ++accepted;
  }
  EXPECT_GT(accepted, ObjectStore::soaked(5'000));
}

TEST(FuzzTest, ADamagedIndexLogTellsWhatItsWholeLinesTell) {
  Fuzzer fuzzer(11);
  const ObjectStore::TempDir dir;
  const auto told = [&](const std::string& text) {
    ObjectStore::writeFile(dir / "log", text);
    EXPECT_EQ(IndexLog().rewrite(dir / "new", [&](const auto& visit) { IndexLog::read(dir / "log", visit); }),
              0);
    return ObjectStore::readFile(dir / "new");
  };
  for (size_t left = ObjectStore::soaked(50); left > 0 && !HasFailure(); --left) {
    std::string text;
    for (int i = 0; i < 5; ++i)
      text += fuzzer.any("- k .\n|+ 5 6 %22v%22 a%0Ab .\n|+ 18446744073709551615 9223372036 %00  .\n|");
    EXPECT_EQ(told(text), text);
    const std::string cut = text.substr(0, fuzzer.below(text.size() + 1));
    EXPECT_EQ(told(cut), cut.ends_with(" .") ? cut + '\n' : cut.substr(0, cut.rfind('\n') + 1));
    for (int i = 0; i < 4; ++i) fuzzer.damage(text, " |\n|%|\n+ 1 9223372037 v k .\n|");
    text = told(text);
    EXPECT_EQ(told(text), text);
  }
}

}  // namespace
}  // namespace diskcached
