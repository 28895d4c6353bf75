// The pure functions on requests, in tables.
#include <gtest/gtest.h>

#include "http/headGuard.h"
#include "http/range.h"
#include "http/target.h"

namespace diskcached {
namespace {

TEST(HttpTest, TargetsNameKeysOrNothing) {
  const struct {
    std::string_view text;
    const char* key;  // null: refused
    const char* query;
  } cases[] = {
      {"/", "", ""},
      {"/a/b%20c?list-type=2&prefix=x%2Fy", "a/b c", "list-type=2&prefix=x%2Fy"},
      {"http://host:80/k%3Ay", "k:y", ""},
      {"http://host", "", ""},
      {"/a//b/", "a//b/", ""},
      {"/%c3%A4+", "\xc3\xa4+", ""},
      {"/..a/.b/c..", "..a/.b/c..", ""},
      {"/a/../b", nullptr, ""},
      {"/%2e%2e/b", nullptr, ""},
      {"/a/.", nullptr, ""},
      {"/%", nullptr, ""},
      {"/%4", nullptr, ""},
      {"/%zz", nullptr, ""},
      {"/a%00b", nullptr, ""},
      {"/a b", nullptr, ""},
      {"/a#b", nullptr, ""},
      {"*", nullptr, ""},
      {"", nullptr, ""},
  };
  for (const auto& c : cases) {
    const auto target = parseTarget(c.text);
    ASSERT_EQ(target.has_value(), c.key != nullptr) << c.text;
    if (!target) continue;
    EXPECT_EQ(target->key, c.key);
    EXPECT_EQ(target->query, c.query);
    EXPECT_EQ(parseTarget('/' + encodePath(target->key))->key, target->key);
  }
  EXPECT_EQ(canonicalQuery("uploads&b=2&a=x y/z%7e&a=%41"), "a=A&a=x%20y%2Fz~&b=2&uploads=");
  EXPECT_EQ(queryValue("a=1&prefix=x%2Fy", "prefix"), "x/y");
}

TEST(HttpTest, HeadsThatTwoCouldReadInTwoWaysAreRefused) {
  const std::string line = "GET / HTTP/1.1\r\n", host = "Host: h\r\n";
  const struct {
    std::string head;
    unsigned status;
  } cases[] = {
      {line + host, 0},
      {line + host + "Content-Length: 5\r\n", 0},
      {line + host + "Transfer-Encoding: Chunked\r\n", 0},
      {"GET / HTTP/1.0\r\n", 0},
      {line, 400},
      {line + host + host, 400},
      {line + host + "Content-Length: 5\r\nContent-Length: 5\r\n", 400},
      {line + host + "Content-Length: 5\r\nContent-Length: 6\r\n", 400},
      {line + host + "Content-Length: 5, 5\r\n", 400},
      {line + host + "Content-Length: +5\r\n", 400},
      {line + host + "Content-Length: 0x5\r\n", 400},
      {line + host + "Content-Length:\r\n", 400},
      {line + host + "Content-Length: 99999999999999999999\r\n", 400},
      {line + host + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", 400},
      {line + host + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", 400},
      {line + host + "Transfer-Encoding: gzip, chunked\r\n", 501},
      {line + host + "Transfer-Encoding: xchunked\r\n", 501},
      {"GET / HTTP/1.0\r\n" + host + "Transfer-Encoding: chunked\r\n", 400},
      {line + host + " folded\r\n", 400},
      {line + host + "A: b\r\n\tfolded\r\n", 400},
      {line + " Host: h\r\n", 400},
      {line + "Host : h\r\n", 400},
      {line + host + "Transfer-Encoding : chunked\r\n", 400},
      {line + host + "no colon\r\n", 400},
      {line + host + ": empty\r\n", 400},
      {line + host + "A: b\x01\r\n", 400},
      {line + host + "A: b\rc\r\n", 400},
      {line + host + std::string("A: b\0c\r\n", 8), 400},
      {"GET /\r\n" + host, 400},
      {"GET  / HTTP/1.1\r\n" + host, 400},
      {"GET / x HTTP/1.1\r\n" + host, 400},
      {"G(T / HTTP/1.1\r\n" + host, 400},
      {"GET / HTTP/2.0\r\n" + host, 505},
      {"GET / http/1.1\r\n" + host, 400},
  };
  for (const auto& c : cases) EXPECT_EQ(refusalOf(c.head + "\r\n").status, c.status) << c.head;
}

TEST(HttpTest, TheEndOfAHeadIsFoundWhereverTheBytesAreCut) {
  const std::string head = "GET / HTTP/1.1\r\nHost: h\r\n\r\n", bytes = head + "GET";
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const HeadEnd early = findHeadEnd(std::string_view(bytes).substr(0, cut), 0);
    EXPECT_EQ(early.size, cut < head.size() ? 0 : head.size());
    EXPECT_FALSE(early.isBare);
    if (early.size == 0) {
      EXPECT_EQ(findHeadEnd(bytes, cut).size, head.size()) << cut;
    }
  }
  for (const std::string_view bare : {"GET / HTTP/1.1\n", "GET / HTTP/1.1\r\nA: b\n", "\n", "A\r\n\n"})
    EXPECT_TRUE(findHeadEnd(bare, 0).isBare) << bare;
}

}  // namespace
}  // namespace diskcached
