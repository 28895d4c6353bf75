// Hostile heads and damaged index logs, many, the same each time. What the guard lets through must mean to the
// parser what it means to a reader who knows nothing but lines, and be harmless to what looks at it then.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <random>
#include <regex>
#include <sstream>

#include "http/conditions.h"
#include "http/range.h"
#include "http/target.h"
#include "object/indexLog.h"
#include "tests/support/soak.h"
#include "tests/support/tempDir.h"

namespace diskcached {
namespace {

using boost::beast::http::field;
using Parser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;
using Words = std::vector<std::string>;

struct Fuzzer {
  explicit Fuzzer(unsigned seed) : random(seed) { std::printf("seed %u\n", seed); }
  size_t below(size_t end) { return random() % end; }
  void damage(std::string& text, const Words& words) {
    const size_t at = below(text.size() + 1), size = below(24);
    switch (below(6)) {
      case 0: return void(text.insert(at, 1, static_cast<char>(below(256))));
      case 1: return void(text.replace(at, 1, 1, "\r\n\t :,;-/%?#\0\"=+"[below(16)]));
      case 2: return void(text.erase(at, size));
      case 3: return void(text.insert(at, text.substr(at, size)));
      default: return void(text.replace(at, below(2) * size, words[below(words.size())]));
    }
  }
  std::mt19937 random;
};

Words split(std::string text) {
  Words words;
  std::istringstream rest(text);
  for (std::string word; std::getline(rest, word, '|');) words.push_back(word);
  return words;
}
const Words WORDS = split(
    "\r\n|\r\n\r\n|HTTP/1.0|/a/%2e%2e/b|/a%20b//c?x=%41&y|%00|http://h/k|, "
    "close|99999999999|\r\nContent-Length: 5|"
    "\r\nTransfer-Encoding: chunked|\r\nConnection: close|\r\nConnection: keep-alive|\r\nRange: bytes=-5|"
    "\r\nRange: bytes=0-18446744073709551615|\r\nIf-None-Match: \"a,b\", W/\"c\"|\r\nIf-Range: \"a,b\"|"
    "\r\nIf-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT|\r\nExpires: Fri, 31 Dec 9999 23:59:59 GMT");

// What lines of a head with such a name hold, with commas between.
std::string valuesOf(const std::string& head, const std::string& name) {
  const std::regex line("\r\n" + name + ":[ \t]*([^\r]*)", std::regex::icase);
  std::string all;
  for (std::sregex_iterator at(head.begin(), head.end(), line), end; at != end; ++at) all += ',' + at->str(1);
  std::erase_if(all, [](char c) { return c == ' ' || c == '\t'; });
  std::transform(all.begin(), all.end(), all.begin(), [](char c) { return std::tolower(c); });
  return all + ',';
}

void expectSameFraming(const Parser& parser, const std::string& head) {
  const std::string length = valuesOf(head, "content-length"), connection = valuesOf(head, "connection");
  const bool isOld = head.find(" HTTP/1.0\r\n") != std::string::npos;
  const std::string token = isOld ? ",keep-alive," : ",close,";
  EXPECT_EQ(parser.content_length().value_or(0), std::strtoull(&length[1], nullptr, 10));
  EXPECT_EQ(parser.chunked(), valuesOf(head, "transfer-encoding") == ",chunked,");
  EXPECT_EQ(parser.keep_alive(), isOld == (connection.find(token) != std::string::npos));
  EXPECT_EQ(' ' + std::string(parser.get().target()) + ' ',
            head.substr(head.find(' '), parser.get().target().size() + 2));
}

void expectHarmless(const Parser::value_type& request) {
  const auto value = [&](field name) { return std::string_view(request[name]); };
  if (const auto target = parseTarget(request.target())) {
    const auto again = parseTarget('/' + encodePath(target->key));
    EXPECT_TRUE(again && again->key == target->key && again->query.empty());
    EXPECT_EQ(canonicalQuery(canonicalQuery(target->query)), canonicalQuery(target->query));
  }
  for (const uint64_t size : {uint64_t{0}, uint64_t{1}, uint64_t{8}, UINT64_MAX}) {
    const auto [kind, range] = chooseRange(value(field::range), size);
    EXPECT_TRUE(kind != RangeChoice::Part ||
                (range.size > 0 && range.from < size && range.size <= size - range.from));
  }
  const std::string_view since = value(field::if_modified_since), ifRange = value(field::if_range);
  EXPECT_NE(judge({{}, value(field::if_none_match), since}, "\"a,b\"", since), Verdict::Failed);
  EXPECT_EQ(mayAnswerPart(ifRange, "\"a,b\"", "x"), ifRange.empty() || ifRange == "\"a,b\"" || ifRange == "x");
  const Clock::time_point now = Clock::now();
  const std::string expires(value(field::expires));
  const auto until = describeObject({{"expires", expires}}, 1, {}, now).freshUntil;
  EXPECT_TRUE(until > now || !expires.ends_with("Dec 9999 23:59:59 GMT"));
}

TEST(FuzzTest, WhatTheGuardLetsThroughHasOneMeaning) {
  Fuzzer fuzzer(7);
  size_t accepted = 0;
  const size_t heads = ObjectStore::soaked(30'000);
  for (size_t i = 0; i < heads && !HasFailure(); ++i) {
    std::string bytes = "PUT /a%20b?c HTTP/1.1\r\nHost: h" + WORDS[fuzzer.below(WORDS.size())] +
                        "\r\nX: y\r\n\r\nbody\r\n\r\n";
    for (size_t left = fuzzer.below(6); left > 0; --left) fuzzer.damage(bytes, WORDS);
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
  EXPECT_GT(accepted, heads / 10);
}

Words readLog(const std::string& path) {
  Words told;
  IndexLog::read(path, [&](const std::string& key, const ObjectInfoPointer& info) {
    told.push_back(key + (info ? fmt::format("\n{} {} {} {}", info->version, info->size,
                                             Clock::to_time_t(info->checkedAt), info->isStaged)
                               : ""));
  });
  return told;
}

TEST(FuzzTest, ADamagedIndexLogTellsWhatItsLinesTell) {
  Fuzzer fuzzer(11);
  const ObjectStore::TempDir dir;
  const std::string path = dir / "log", damaged = dir / "damaged";
  const auto anyText = [&] { return std::string(1 + fuzzer.below(3), static_cast<char>(fuzzer.below(256))); };
  for (size_t i = ObjectStore::soaked(500); i > 0 && !HasFailure(); --i) {
    IndexLog log;
    (void)log.rewrite(path, [](const IndexLog::Visit&) {});
    for (size_t lines = 5; lines > 0; --lines) {
      ObjectInfo info;
      info.version = anyText(), info.size = fuzzer.below(99), info.isStaged = lines == 2;
      ASSERT_EQ(log.append(anyText(), lines == 3 ? nullptr : &info), 0);
    }
    std::string text = ObjectStore::readFile(path);
    const std::string cut = text.substr(0, fuzzer.below(text.size() + 1));
    ObjectStore::writeFile(damaged, cut);
    Words whole = readLog(path);
    ASSERT_EQ(whole.size(), 5U);
    whole.resize(static_cast<size_t>(std::count(cut.begin(), cut.end(), '\n')) +
                 (cut.ends_with(" .") ? 1 : 0));
    EXPECT_EQ(readLog(damaged), whole);
    for (size_t left = 4; left > 0; --left)
      fuzzer.damage(text, {" ", "\n", "18446744073709551615", "%", "+ 1 1 1 v k .\n"});
    ObjectStore::writeFile(damaged, text);
    const Words told = readLog(damaged);
    ASSERT_EQ(log.rewrite(path, [&](const IndexLog::Visit& visit) { IndexLog::read(damaged, visit); }), 0);
    EXPECT_EQ(readLog(path), told);
  }
}

}  // namespace
}  // namespace diskcached
