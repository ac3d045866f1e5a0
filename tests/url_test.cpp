#include <gtest/gtest.h>
#include <travik/url.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Owns a parsed URL for the length of a test.
struct Url {
  travik_url url;
  explicit Url(const char *text) { travik_url_init(&url, text); }
  ~Url() { travik_url_destroy(&url); }
  travik_url *operator->() { return &url; }
};


TEST(Url, FullUrlIsSplitIntoItsParts) {
  Url u("tcp://me@example.org:8080/dir/file.ts?a=1");
  EXPECT_STREQ(u->full, "tcp://me@example.org:8080/dir/file.ts?a=1");
  EXPECT_STREQ(u->scheme, "tcp");
  EXPECT_STREQ(u->user, "me");
  EXPECT_STREQ(u->host, "example.org");
  EXPECT_EQ(u->port, 8080);
  EXPECT_STREQ(u->path, "dir/file.ts?a=1");
  EXPECT_STREQ(u->extension, "ts");
}

TEST(Url, FieldsPointIntoTheWorkingCopy) {
  Url u("udp://h:1/p");
  EXPECT_NE(u->work, u->full);
  EXPECT_GE(u->host, u->work);
  EXPECT_LT(u->host, u->work + std::strlen(u->full));
  EXPECT_GE(u->path, u->work);
  EXPECT_EQ(u->scheme, u->work);
}

TEST(Url, PlainNameIsAFilePath) {
  Url u("/media/a.mpg");
  EXPECT_STREQ(u->scheme, "file");
  EXPECT_STREQ(u->path, "/media/a.mpg");
  EXPECT_EQ(u->host, nullptr);
  EXPECT_EQ(u->user, nullptr);
  EXPECT_EQ(u->port, -1);
  EXPECT_STREQ(u->extension, "mpg");
}

TEST(Url, ColonNotFollowedBySlashIsNoScheme) {
  Url u("a:b");
  EXPECT_STREQ(u->scheme, "file");
  EXPECT_STREQ(u->path, "a:b");
  EXPECT_EQ(u->host, nullptr);
}

TEST(Url, OnlyASchemeIsAPath) {
  Url u("http:");
  EXPECT_STREQ(u->scheme, "file");
  EXPECT_STREQ(u->path, "http:");
  EXPECT_EQ(u->extension, nullptr);
}

TEST(Url, SingleSlashAfterSchemeIsAccepted) {
  Url u("tcp:/host:5/x");
  EXPECT_STREQ(u->scheme, "tcp");
  EXPECT_STREQ(u->host, "host");
  EXPECT_EQ(u->port, 5);
  EXPECT_STREQ(u->path, "x");
}

TEST(Url, FileUrlPathLosesItsLeadingSlash) {
  Url u("file:///media/a.ts");
  EXPECT_STREQ(u->scheme, "file");
  EXPECT_STREQ(u->host, "");
  EXPECT_STREQ(u->path, "media/a.ts");
  EXPECT_STREQ(u->extension, "ts");
}

TEST(Url, EmptyAuthorityGivesEmptyHost) {
  Url u("scheme:///x");
  EXPECT_STREQ(u->host, "");
  EXPECT_STREQ(u->path, "x");
}

TEST(Url, NoPathMeansNoExtensionAndKeepsScheme) {
  Url u("udp://239.1.1.1:5000?multicast=1&ttl=4");
  EXPECT_STREQ(u->scheme, "udp");
  EXPECT_STREQ(u->host, "239.1.1.1");
  EXPECT_EQ(u->port, 5000);
  EXPECT_EQ(u->path, nullptr);
  EXPECT_EQ(u->extension, nullptr);
  char value[16] = "unchanged";
  EXPECT_EQ(travik_url_findtag(&u.url, "multicast", value, sizeof value), 0);
  EXPECT_STREQ(value, "unchanged");
}

TEST(Url, SlashBeforeQueryMakesOptionsFindable) {
  Url u("udp://239.1.1.1:5000/?multicast=1");
  EXPECT_STREQ(u->path, "?multicast=1");
  char value[16] = "";
  EXPECT_EQ(travik_url_findtag(&u.url, "multicast", value, sizeof value), 1);
  EXPECT_STREQ(value, "1");
}

TEST(Url, UserAndDottedDirectoryWithoutExtension) {
  Url u("tcp://user@host/dir.old/file");
  EXPECT_STREQ(u->user, "user");
  EXPECT_STREQ(u->host, "host");
  EXPECT_STREQ(u->path, "dir.old/file");
  EXPECT_EQ(u->extension, nullptr);
}

TEST(Url, AtAfterTheFirstSlashIsNotAUser) {
  Url u("tcp://host/a@b");
  EXPECT_EQ(u->user, nullptr);
  EXPECT_STREQ(u->host, "host");
  EXPECT_STREQ(u->path, "a@b");
}

TEST(Url, AtWithoutAnySlashIsAUser) {
  Url u("tcp://u@h:9");
  EXPECT_STREQ(u->user, "u");
  EXPECT_STREQ(u->host, "h");
  EXPECT_EQ(u->port, 9);
  EXPECT_EQ(u->path, nullptr);
}

TEST(Url, EmptyPortIsZeroAndMissingPortIsMinusOne) {
  Url a("tcp://host:/x");
  EXPECT_EQ(a->port, 0);
  EXPECT_STREQ(a->path, "x");
  Url b("tcp://host/x");
  EXPECT_EQ(b->port, -1);
}

TEST(Url, BadPortTextParsesItsLeadingDigits) {
  Url a("tcp://host:12ab/x");
  EXPECT_EQ(a->port, 12);
  Url b("tcp://host:zz");
  EXPECT_EQ(b->port, 0);
  EXPECT_EQ(b->path, nullptr);
}

TEST(Url, HugePortSaturatesLikeA32BitLong) {
  Url a("tcp://host:99999999999999999999/x");
  EXPECT_EQ(a->port, INT32_MAX);
  Url b("tcp://host:-99999999999/x");
  EXPECT_EQ(b->port, INT32_MIN);
}

TEST(Url, MissingHost) {
  Url u("tcp://:80/x");
  EXPECT_STREQ(u->host, "");
  EXPECT_EQ(u->port, 80);
  EXPECT_STREQ(u->path, "x");
}

TEST(Url, SchemeWithEmptyRest) {
  Url u("http://");
  EXPECT_STREQ(u->scheme, "http");
  EXPECT_STREQ(u->host, "");
  EXPECT_EQ(u->path, nullptr);
  EXPECT_EQ(u->port, -1);
}

TEST(Url, EmptyText) {
  Url u("");
  EXPECT_STREQ(u->full, "");
  EXPECT_STREQ(u->scheme, "file");
  EXPECT_STREQ(u->path, "");
  EXPECT_EQ(u->extension, nullptr);
}

TEST(Url, NullTextIsEmpty) {
  Url u(nullptr);
  EXPECT_STREQ(u->full, "");
  EXPECT_STREQ(u->path, "");
}

TEST(Url, ExtensionStopsAtTheFirstNonAlphanumeric) {
  Url u("http://h/a.ts?x=1");
  EXPECT_STREQ(u->extension, "ts");
}

TEST(Url, DotInsideAnOptionValueWins) {
  Url u("http://h/a.ts?name=b.mp3");
  EXPECT_STREQ(u->extension, "mp3");
}

TEST(Url, SlashInsideTheQueryMovesTheSearch) {
  Url u("http://h/a.ts?dir=x/y");
  EXPECT_EQ(u->extension, nullptr);
}

TEST(Url, EmptyExtensionRunIsNone) {
  Url u("/tmp/file.");
  EXPECT_EQ(u->extension, nullptr);
  Url v("/tmp/file.-x");
  EXPECT_EQ(v->extension, nullptr);
}

TEST(Url, DestroyClearsTheOwnedFields) {
  travik_url url;
  travik_url_init(&url, "tcp://h/x.ts");
  travik_url_destroy(&url);
  EXPECT_EQ(url.full, nullptr);
  EXPECT_EQ(url.work, nullptr);
  EXPECT_EQ(url.extension, nullptr);
}

// ---- travik_url_findtag ----

TEST(UrlFindTag, FindsAnOptionAmongOthers) {
  Url u("udp://h:1/?a=1&localport=7000&c=3");
  char value[16];
  EXPECT_EQ(travik_url_findtag(&u.url, "localport", value, sizeof value), 1);
  EXPECT_STREQ(value, "7000");
}

TEST(UrlFindTag, PlusBecomesSpaceWithoutPercentDecoding) {
  Url u("http://h/x?title=a+b%20c");
  char value[32];
  EXPECT_EQ(travik_url_findtag(&u.url, "title", value, sizeof value), 1);
  EXPECT_STREQ(value, "a b%20c");
}

TEST(UrlFindTag, ComparisonIsExactAndCaseSensitive) {
  Url u("http://h/x?Name=1&nam=2");
  char value[16];
  EXPECT_EQ(travik_url_findtag(&u.url, "name", value, sizeof value), 0);
  EXPECT_EQ(travik_url_findtag(&u.url, "Name", value, sizeof value), 1);
  EXPECT_STREQ(value, "1");
}

TEST(UrlFindTag, MissLeavesTheLastParsedValue) {
  Url u("http://h/x?a=1&b=22");
  char value[16] = "";
  EXPECT_EQ(travik_url_findtag(&u.url, "zz", value, sizeof value), 0);
  EXPECT_STREQ(value, "22");
}

TEST(UrlFindTag, KeyWithoutValueMatchesAndLeavesBuffer) {
  Url u("http://h/x?a=5&flag&c=3");
  char value[16] = "";
  EXPECT_EQ(travik_url_findtag(&u.url, "flag", value, sizeof value), 1);
  EXPECT_STREQ(value, "5");
}

TEST(UrlFindTag, ValueIsCutToTheBuffer) {
  Url u("http://h/x?k=abcdefgh");
  char value[5];
  EXPECT_EQ(travik_url_findtag(&u.url, "k", value, sizeof value), 1);
  EXPECT_STREQ(value, "abcd");
}

TEST(UrlFindTag, SizeZeroWritesNothing) {
  Url u("http://h/x?k=abc");
  char value[2] = {'Q', 'Q'};
  EXPECT_EQ(travik_url_findtag(&u.url, "k", value, 0), 1);
  EXPECT_EQ(value[0], 'Q');
  EXPECT_EQ(value[1], 'Q');
}

TEST(UrlFindTag, SizeOneGivesEmptyValue) {
  Url u("http://h/x?k=abc");
  char value[1] = {'Q'};
  EXPECT_EQ(travik_url_findtag(&u.url, "k", value, 1), 1);
  EXPECT_EQ(value[0], '\0');
}

TEST(UrlFindTag, LongKeysAreComparedOnTheirFirst127Characters) {
  std::string key(200, 'k');
  std::string text = "http://h/x?" + key + "=v";
  Url u(text.c_str());
  char value[8];
  EXPECT_EQ(travik_url_findtag(&u.url, key.c_str(), value, sizeof value), 0);
  EXPECT_EQ(travik_url_findtag(&u.url, key.substr(0, 127).c_str(), value, sizeof value), 1);
  EXPECT_STREQ(value, "v");
  EXPECT_EQ(travik_url_findtag(&u.url, key.substr(0, 126).c_str(), value, sizeof value), 0);
}

TEST(UrlFindTag, NoQueryOrNoPath) {
  char value[8];
  Url a("http://h/x");
  EXPECT_EQ(travik_url_findtag(&a.url, "x", value, sizeof value), 0);
  Url b("http://h");
  EXPECT_EQ(travik_url_findtag(&b.url, "h", value, sizeof value), 0);
}

TEST(UrlFindTag, EmptyKeyMatchesEmptyName) {
  Url u("http://h/x?=7");
  char value[8] = "";
  EXPECT_EQ(travik_url_findtag(&u.url, "", value, sizeof value), 1);
  EXPECT_STREQ(value, "7");
}

TEST(UrlFindTag, QueryOfAPlainName) {
  Url u("/media/a.ts?x=1");
  char value[8] = "";
  EXPECT_EQ(travik_url_findtag(&u.url, "x", value, sizeof value), 1);
  EXPECT_STREQ(value, "1");
}

// ---- word tokenisers ----

TEST(ParseWord, WalksAlongALine) {
  const char *line = "  alpha\tbeta  gamma";
  char word[16];
  const char *p = travik_parse_word(line, word, sizeof word);
  EXPECT_STREQ(word, "alpha");
  EXPECT_EQ(p, line + 7);
  p = travik_parse_word(p, word, sizeof word);
  EXPECT_STREQ(word, "beta");
  p = travik_parse_word(p, word, sizeof word);
  EXPECT_STREQ(word, "gamma");
  EXPECT_EQ(*p, '\0');
  p = travik_parse_word(p, word, sizeof word);
  EXPECT_STREQ(word, "");
  EXPECT_EQ(*p, '\0');
}

TEST(ParseWord, SizeOneGivesEmptyWordButStepsOverIt) {
  const char *line = "long next";
  char word[1] = {'Q'};
  const char *p = travik_parse_word(line, word, 1);
  EXPECT_EQ(word[0], '\0');
  EXPECT_EQ(p, line + 4);
}

TEST(ParseWord, OverLongWordIsCutAndSkipped) {
  const char *line = "abcdefgh rest";
  char word[4];
  const char *p = travik_parse_word(line, word, sizeof word);
  EXPECT_STREQ(word, "abc");
  EXPECT_EQ(p, line + 8);
}

TEST(ParseWord, NonPositiveSizeWritesNothing) {
  const char *line = "abc def";
  char word[2] = {'Q', 'Q'};
  EXPECT_EQ(travik_parse_word(line, word, 0), line + 3);
  EXPECT_EQ(travik_parse_word(line, word, -5), line + 3);
  EXPECT_EQ(word[0], 'Q');
}

TEST(ParseWord, MostNegativeSizeWritesNothing) {
  const char *line = "abc def";
  char word[2] = {'Q', 'Q'};
  EXPECT_EQ(travik_parse_word(line, word, INT32_MIN), line + 3);
  EXPECT_EQ(word[0], 'Q');
  EXPECT_EQ(word[1], 'Q');
}

TEST(ParseWord2, NonPositiveSizeWritesNothingButStepsToTheDelimiter) {
  const char *line = " ab cd=ef";
  char word[2] = {'Q', 'Q'};
  EXPECT_EQ(travik_parse_word2(line, word, 0, "="), line + 6);
  EXPECT_EQ(travik_parse_word2(line, word, -5, "="), line + 6);
  EXPECT_EQ(travik_parse_word2(line, word, INT32_MIN, "="), line + 6);
  EXPECT_EQ(word[0], 'Q');
  EXPECT_EQ(word[1], 'Q');
}

TEST(ParseWord2, SizeOneGivesEmptyWordButStepsToTheDelimiter) {
  const char *line = "key=value";
  char word[1] = {'Q'};
  EXPECT_EQ(travik_parse_word2(line, word, 1, "="), line + 3);
  EXPECT_EQ(word[0], '\0');
}

TEST(ParseWord2, LeadingWhiteSpaceIsSkippedEvenWhenItIsADelimiter) {
  const char *line = "  ab cd";
  char word[8];
  const char *p = travik_parse_word2(line, word, sizeof word, " ");
  EXPECT_STREQ(word, "ab");
  EXPECT_EQ(p, line + 4);
}

TEST(ParseWord2, StopsAtADelimiterKeepingInnerSpaces) {
  const char *line = "  key name = value";
  char word[32];
  const char *p = travik_parse_word2(line, word, sizeof word, "=");
  EXPECT_STREQ(word, "key name ");
  EXPECT_EQ(*p, '=');
  p = travik_parse_word2(p + 1, word, sizeof word, "=");
  EXPECT_STREQ(word, "value");
  EXPECT_EQ(*p, '\0');
}

TEST(ParseWord2, AnyOfSeveralDelimiters) {
  const char *line = "a b;c,d";
  char word[8];
  const char *p = travik_parse_word2(line, word, sizeof word, ",;");
  EXPECT_STREQ(word, "a b");
  EXPECT_EQ(p, line + 3);
}

TEST(ParseWord2, OverLongIsCutAndSkippedToTheDelimiter) {
  const char *line = "abcdefgh:x";
  char word[3];
  const char *p = travik_parse_word2(line, word, sizeof word, ":");
  EXPECT_STREQ(word, "ab");
  EXPECT_EQ(p, line + 8);
}

TEST(StrdupToken, FieldsOfACommaList) {
  const char *text = "a,,b";
  const char *rest = nullptr;
  char *f0 = travik_strdup_token(text, ",", 0, &rest);
  ASSERT_NE(f0, nullptr);
  EXPECT_STREQ(f0, "a");
  EXPECT_EQ(rest, text + 2);
  char *f1 = travik_strdup_token(text, ",", 1, &rest);
  ASSERT_NE(f1, nullptr);
  EXPECT_STREQ(f1, "");
  EXPECT_EQ(rest, text + 3);
  char *f2 = travik_strdup_token(text, ",", 2, &rest);
  ASSERT_NE(f2, nullptr);
  EXPECT_STREQ(f2, "b");
  EXPECT_EQ(rest, nullptr);
  EXPECT_EQ(travik_strdup_token(text, ",", 3, &rest), nullptr);
  std::free(f0);
  std::free(f1);
  std::free(f2);
}

TEST(StrdupToken, MultiCharacterSeparator) {
  const char *text = "one::two::three";
  const char *rest = nullptr;
  char *f = travik_strdup_token(text, "::", 1, &rest);
  ASSERT_NE(f, nullptr);
  EXPECT_STREQ(f, "two");
  EXPECT_STREQ(rest, "three");
  std::free(f);
}

TEST(StrdupToken, RestIsOptional) {
  char *f = travik_strdup_token("x y", " ", 1, nullptr);
  ASSERT_NE(f, nullptr);
  EXPECT_STREQ(f, "y");
  std::free(f);
}

TEST(StrdupToken, NegativeIndexAndNullTextGiveNull) {
  EXPECT_EQ(travik_strdup_token("a,b", ",", -1, nullptr), nullptr);
  EXPECT_EQ(travik_strdup_token(nullptr, ",", 0, nullptr), nullptr);
}

TEST(StrdupToken, EmptyTextHasOneEmptyField) {
  char *f = travik_strdup_token("", ",", 0, nullptr);
  ASSERT_NE(f, nullptr);
  EXPECT_STREQ(f, "");
  std::free(f);
  EXPECT_EQ(travik_strdup_token("", ",", 1, nullptr), nullptr);
}

}  // namespace
