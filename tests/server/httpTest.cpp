// The pure functions on requests, in tables.
#include <gtest/gtest.h>

#include "http/headGuard.h"
#include "http/range.h"
#include "http/target.h"
#include "object/objectInfo.h"

namespace diskcached {
namespace {

TEST(HttpTest, TargetsNameKeysOrNothing) {
  const struct {
    std::string_view text;
    const char *key, *query;
  } cases[] = {
      {"/", "", ""},
      {"/a/b%20c?list-type=2&prefix=x%2Fy", "a/b c", "list-type=2&prefix=x%2Fy"},
      {"http://host:80/k%3Ay", "k:y", ""},
      {"http://host", "", ""},
      {"/a//b/", "a//b/", ""},
      {"/%c3%A4+", "\xc3\xa4+", ""},
      {"/..a/.b/c..", "..a/.b/c..", ""},
  };
  for (const auto& c : cases) {
    const auto target = parseTarget(c.text);
    ASSERT_TRUE(target) << c.text;
    EXPECT_EQ(target->key, c.key);
    EXPECT_EQ(target->query, c.query);
    EXPECT_EQ(parseTarget('/' + encodePath(target->key))->key, target->key);
  }
  for (const char* refused :
       {"/a/../b", "/%2e%2e/b", "/a/.", "/%", "/%4", "/%zz", "/a%00b", "/a b", "/a#b", "*", ""})
    EXPECT_FALSE(parseTarget(refused)) << refused;
  EXPECT_EQ(canonicalQuery("uploads&b=2&a=x y/z%7e&a=%41"), "a=A&a=x%20y%2Fz~&b=2&uploads=");
  EXPECT_EQ(queryValue("a=1&prefix=x%2Fy", "prefix"), "x/y");
}

TEST(HttpTest, HeadsThatTwoCouldReadInTwoWaysAreRefused) {
  const std::string line = "GET / HTTP/1.1\r\n", host = "Host: h\r\n";
  const std::string sized = line + host + "Content-Length: ", coded = line + host + "Transfer-Encoding: ";
  const std::pair<unsigned, std::vector<std::string>> cases[] = {
      {0, {line + host, sized + "5\r\n", coded + "Chunked\r\n", "GET / HTTP/1.0\r\n"}},
      {400, {line, line + host + host}},
      {400, {sized + "5, 5\r\n", sized + "+5\r\n", sized + "0x5\r\n", sized + "\r\n"}},
      {400, {sized + "5\r\nContent-Length: 5\r\n", sized + "5\r\nContent-Length: 6\r\n"}},
      {400, {sized + "99999999999999999999\r\n", sized + "5\r\nTransfer-Encoding: chunked\r\n"}},
      {400, {coded + "chunked\r\nTransfer-Encoding: chunked\r\n"}},
      {501, {coded + "gzip, chunked\r\n", coded + "xchunked\r\n"}},
      {400, {"GET / HTTP/1.0\r\n" + host + "Transfer-Encoding: chunked\r\n"}},
      {400, {line + host + " folded\r\n", line + host + "A: b\r\n\tfolded\r\n", line + " Host: h\r\n"}},
      {400, {line + "Host : h\r\n", line + host + "Transfer-Encoding : chunked\r\n"}},
      {400, {line + host + "no colon\r\n", line + host + ": empty\r\n"}},
      {400, {line + host + "A: b\x01\r\n", line + host + "A: b\rc\r\n"}},
      {400, {line + host + std::string("A: b\0c\r\n", 8)}},
      {400, {"GET /\r\n" + host, "GET  / HTTP/1.1\r\n" + host, "GET / x HTTP/1.1\r\n" + host}},
      {400, {"G(T / HTTP/1.1\r\n" + host, "GET / http/1.1\r\n" + host}},
      {505, {"GET / HTTP/2.0\r\n" + host}},
  };
  for (const auto& [status, heads] : cases) {
    for (const std::string& head : heads) EXPECT_EQ(refusalOf(head + "\r\n").status, status) << head;
  }
}

TEST(HttpTest, ASizeThatNoObjectHasIsNotBelieved) {
  for (const auto& [size, isBelieved] : {std::pair{"8000000000000", true}, {"4611686018427387904", false}})
    EXPECT_EQ(describeObject({{"ETag", "x"}, {"Content-Length", size}}, Options(), Clock::now()).has_value(),
              isBelieved);
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
