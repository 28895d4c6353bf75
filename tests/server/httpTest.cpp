// The pure functions on requests, in tables.
#include <gtest/gtest.h>

#include "http/conditions.h"
#include "http/headGuard.h"
#include "http/httpDate.h"
#include "http/multiDelete.h"
#include "http/target.h"
#include "origin/signature.h"

namespace diskcached {
namespace {

TEST(HttpTest, TargetsNameKeysOrNothing) {
  EXPECT_EQ(parseTarget("/%c3%A4+//..a/.b/c..?x=y%2F")->key, "\xc3\xa4+//..a/.b/c..");
  EXPECT_EQ(parseTarget("/%c3%A4+//..a/.b/c..?x=y%2F")->query, "x=y%2F");
  EXPECT_EQ(parseTarget("http://host")->key, "");
  for (const char* refused :
       {"/a/../b", "/%2e%2e/b", "/a/.", "/%", "/%4", "/%zz", "/a%00b", "/a b", "/a#b", "*", ""})
    EXPECT_FALSE(parseTarget(refused)) << refused;
  EXPECT_EQ(canonicalQuery("uploads&b=2&a=x y/z%7e&a=%41"), "a=A&a=x%20y%2Fz~&b=2&uploads=");
  EXPECT_EQ(queryValue("a=1&prefix=x%2Fy", "prefix"), "x/y");
}

TEST(HttpTest, OnlyWhatNamesOneVersionForCertainLetsAPartBeAnswered) {
  const std::string_view date = "Sun, 06 Nov 1994 08:49:37 GMT", later = "Sun, 06 Nov 1994 08:49:38 GMT";
  const std::time_t second = *parseHttpDate(std::string(date));
  const std::tuple<std::string_view, std::string_view, std::time_t, bool> cases[] = {
      {"", "W/\"a\"", second, true},         {"\"a\"", "\"a\"", second, true},
      {"W/\"a\"", "W/\"a\"", second, false}, {"\"a\"", "W/\"a\"", second, false},
      {"W/\"a\"", "\"a\"", second, false},   {date, "\"a\"", second + 1, true},
      {date, "\"a\"", second, false},        {later, "\"a\"", second + 9, false},
      {"yesterday", "", second + 9, false}};
  for (const auto& [ifRange, etag, lookedAt, mayBe] : cases)
    EXPECT_EQ(mayAnswerPart(ifRange, etag, date, lookedAt), mayBe) << ifRange << etag;
}

TEST(HttpTest, KeysToDeleteAreReadWholeOrNotAtAll) {
  using Keys = std::vector<std::string>;
  const auto object = [](const std::string& key) { return "<Object>\n<Key>" + key + "</Key></Object>"; };
  const std::pair<std::string, Keys> cases[] = {
      {object("a/b c") + object(""), {"a/b c", ""}},
      {object("&lt;&gt;&amp;amp;&quot;&apos;"), {"<>&amp;\"'"}},
      {object("&#65;&#x7f;&#xe4;&#x7ff;&#x800;&#8364;&#xffff;&#x10000;&#x10ffff;"),
       {"A\x7f\xc3\xa4\xdf\xbf\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"}},
      {"<s:Key xmlns:s='u'>a</s:Key ><Keys>b</Keys><Quiet/>", {"a"}},
  };
  for (const auto& [xml, keys] : cases) EXPECT_EQ(keysToDelete(xml), keys) << xml;
  for (const std::string refused :
       {"&other;", "&#x110000;", "&#;", "&amp", "&", "<![CDATA[a]]>", "a<!-- -->b"})
    EXPECT_TRUE(keysToDelete(object("a") + object(refused)).empty()) << refused;
  for (const char* cutShort : {"<Key>a", "<Key", ""}) EXPECT_TRUE(keysToDelete(cutShort).empty()) << cutShort;
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

// The signature was calculated by another program.
TEST(HttpTest, HeadersThatComeTwiceOrEmptyAreSigned) {
  const Headers headers{{"X-Amz-Meta-A", " 1"},
                        {"x-amz-meta-a-b", ""},
                        {"Content-Type", "x"},
                        {"x-amz-meta-a", "2  3 "},
                        {"x-amz-meta-u", "\xc3\xa4"}};
  const std::string body = "body";
  const Headers ours =
      signatureOf({"PUT", "store:81", "/bucket/a%20b", "x=1&y=", headers, std::as_bytes(std::span(body))},
                  {"id:user", "secret", "token"}, "region", 1'000'000'000);
  EXPECT_EQ(
      headerOf(ours, "authorization"),
      "AWS4-HMAC-SHA256 Credential=id:user/20010909/region/s3/aws4_request, SignedHeaders="
      "host;x-amz-content-sha256;x-amz-date;x-amz-meta-a;x-amz-meta-a-b;x-amz-meta-u;x-amz-security-token, "
      "Signature=86041c104d8b19b1dd5e985bdbdbea6edacff318928624732f76e74dd834d08b");
  EXPECT_EQ(headerOf(ours, "x-amz-date"), "20010909T014640Z");
}

TEST(HttpTest, TheEndOfAHeadIsFoundWhereverTheBytesAreCut) {
  const std::string head = "GET / HTTP/1.1\r\nHost: h\r\n\r\n", bytes = head + "GET";
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const size_t seen = std::min(cut, head.size() - 1);
    EXPECT_EQ(findHeadEnd(bytes.substr(0, cut), 0).size, cut < head.size() ? 0 : head.size()) << cut;
    EXPECT_FALSE(findHeadEnd(bytes.substr(0, cut), 0).isBare) << cut;
    EXPECT_EQ(findHeadEnd(bytes, seen).size, head.size()) << cut;
  }
  for (const std::string_view bare : {"GET / HTTP/1.1\n", "GET / HTTP/1.1\r\nA: b\n", "\n", "A\r\n\n"})
    EXPECT_TRUE(findHeadEnd(bare, 0).isBare) << bare;
}

}  // namespace
}  // namespace diskcached
