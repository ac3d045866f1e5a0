// The "text" subtitle plugin on files written here: SubRip, WebVTT and
// SSA/ASS, character sets, markup, overlapping and malformed cues,
// languages beside a movie, seeking, and bad input.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

using Lines = std::vector<std::string>;
using Shown = std::pair<int64_t, Lines>;  // milliseconds, lines

// Takes one entry from the source, or an empty optional-like marker.
bool next(travik_subtitle *s, Shown &shown) {
  void *item = nullptr;
  travik_subtitle_parse(s, &item);
  if (!item) return false;
  auto *entry = static_cast<travik_subtitle_entry *>(item);
  shown.first = entry->time / 1000;
  EXPECT_EQ(entry->time % 1000, 0);
  shown.second.clear();
  for (int32_t i = 0; i < entry->count; ++i) {
    shown.second.emplace_back(entry->lines[i].text, static_cast<size_t>(entry->lines[i].length));
    EXPECT_EQ(entry->lines[i].text[entry->lines[i].length], '\0');
  }
  entry->release(entry);
  return true;
}

std::vector<Shown> all(travik_subtitle *s) {
  std::vector<Shown> out;
  Shown shown;
  while (next(s, shown)) out.push_back(shown);
  return out;
}

class TextSubtitle : public ::testing::Test {
 protected:
  std::string write(const std::string &name, const std::string &content) {
    travik_test::write_file(dir_.file(name), content);
    return dir_.file(name);
  }
  // Opens `name` written with `content` and returns everything it shows.
  std::vector<Shown> shows(const std::string &content, const std::string &name = "sub.srt") {
    travik_subtitle *s = travik_subtitle_create(write(name, content).c_str(), nullptr);
    EXPECT_NE(s, nullptr) << name;
    if (!s) return {};
    std::vector<Shown> out = all(s);
    travik_subtitle_destroy(s);
    return out;
  }
  travik_test::TempDir dir_;
};

const char kSubRip[] =
    "1\r\n"
    "00:00:01,000 --> 00:00:02,500\r\n"
    "<i>Hello</i> <b>world</b>\r\n"
    "\r\n"
    "2\r\n"
    "00:00:03,000 --> 00:00:04,000 X1:10 X2:20\r\n"
    "{\\an8}<font color=\"#ff0000\">Two</font>\r\n"
    "  lines <u>here</u>  \r\n"
    "\r\n";

TEST_F(TextSubtitle, SubRipWithCrLfAndMarkup) {
  EXPECT_EQ(shows(kSubRip), (std::vector<Shown>{{1000, {"Hello world"}},
                                                {2500, {}},
                                                {3000, {"Two", "lines here"}},
                                                {4000, {}}}));
}

TEST_F(TextSubtitle, TheChosenDriver) {
  travik_subtitle *s = travik_subtitle_create(write("a.srt", kSubRip).c_str(), nullptr);
  ASSERT_NE(s, nullptr);
  EXPECT_NE(s->plugin, nullptr);
  EXPECT_STREQ(s->driver->description, "Text subtitles (SubRip, WebVTT, SSA/ASS)");
  EXPECT_EQ(travik_subtitle_getlangcount(s), 1);
  EXPECT_STREQ(travik_subtitle_getlangname(s, 0), "srt");
  EXPECT_EQ(travik_subtitle_getlangindex(s), 0);
  travik_subtitle_destroy(s);
}

TEST_F(TextSubtitle, LineFeedsOnlyAndNoIndexLines) {
  EXPECT_EQ(shows("00:00:01,000 --> 00:00:02,000\nA\n\n00:00:02,000 --> 00:00:03,000\nB\n"),
            (std::vector<Shown>{{1000, {"A"}}, {2000, {"B"}}, {3000, {}}}));
}

TEST_F(TextSubtitle, Utf8WithAndWithoutByteOrderMark) {
  const std::string cue = "1\n00:00:01,000 --> 00:00:02,000\n\xC3\x89t\xC3\xA9 \xE2\x82\xAC\n";
  const std::vector<Shown> expected = {{1000, {"\xC3\x89t\xC3\xA9 \xE2\x82\xAC"}}, {2000, {}}};
  EXPECT_EQ(shows(cue), expected);
  EXPECT_EQ(shows("\xEF\xBB\xBF" + cue), expected);
}

std::string utf16(const std::string &ascii_and_marks, bool big_endian) {
  // Each byte of the input is one code unit; "\x01" stands for U+00E9 and
  // "\x02" for the surrogate pair of U+1F600.
  std::string out = big_endian ? "\xFE\xFF" : "\xFF\xFE";
  auto unit = [&](unsigned u) {
    const char hi = static_cast<char>(u >> 8), lo = static_cast<char>(u & 0xFF);
    out += big_endian ? hi : lo;
    out += big_endian ? lo : hi;
  };
  for (char c : ascii_and_marks) {
    if (c == '\x01') {
      unit(0xE9);
    } else if (c == '\x02') {
      unit(0xD83D);
      unit(0xDE00);
    } else {
      unit(static_cast<unsigned char>(c));
    }
  }
  return out;
}

TEST_F(TextSubtitle, Utf16WithByteOrderMark) {
  const std::string cue = "1\r\n00:00:01,000 --> 00:00:02,000\r\nd\x01j\x01 \x02\r\n";
  const std::vector<Shown> expected = {{1000, {"d\xC3\xA9j\xC3\xA9 \xF0\x9F\x98\x80"}}, {2000, {}}};
  EXPECT_EQ(shows(utf16(cue, false), "le.srt"), expected);
  EXPECT_EQ(shows(utf16(cue, true), "be.srt"), expected);
}

TEST_F(TextSubtitle, Latin1UnderALatin1Locale) {
  TRAVIK_SKIP_WITHOUT_ICONV("ISO-8859-1", "UTF-8");
  const std::string cue = "1\n00:00:01,000 --> 00:00:02,000\n\xC9t\xE9 \xE0 Paris\n";
  setenv("LANG", "fr_FR.ISO-8859-1", 1);
  EXPECT_EQ(shows(cue), (std::vector<Shown>{{1000, {"\xC3\x89t\xC3\xA9 \xC3\xA0 Paris"}}, {2000, {}}}));
  unsetenv("LANG");
  // TRAVIK_LANG is preferred to LANG.
  setenv("LANG", "ja_JP", 1);
  setenv("TRAVIK_LANG", "fr_FR.ISO-8859-1", 1);
  EXPECT_EQ(shows(cue, "b.srt")[0].second, Lines{"\xC3\x89t\xC3\xA9 \xC3\xA0 Paris"});
  unsetenv("TRAVIK_LANG");
  unsetenv("LANG");
}

TEST_F(TextSubtitle, WebVtt) {
  const char vtt[] =
      "WEBVTT - a title\n"
      "\n"
      "NOTE a comment\n"
      "spanning two lines\n"
      "\n"
      "STYLE\n"
      "::cue { color: yellow }\n"
      "\n"
      "intro\n"
      "00:01.000 --> 00:02.000 align:start position:10%\n"
      "<v Bob>Hi</v> <c.yellow>there</c> &amp; &lt;you&gt;\n"
      "\n"
      "01:00:00.500 --> 01:00:01.250\n"
      "<00:00:00.600>late <ruby>word<rt>x</rt></ruby>\n";
  EXPECT_EQ(shows(vtt, "s.vtt"), (std::vector<Shown>{{1000, {"Hi there & <you>"}},
                                                     {2000, {}},
                                                     {3600500, {"late wordx"}},
                                                     {3601250, {}}}));
}

TEST_F(TextSubtitle, AssDialogueOnly) {
  const char ass[] =
      "[Script Info]\n"
      "Title: test\n"
      "ScriptType: v4.00+\n"
      "\n"
      "[V4+ Styles]\n"
      "Format: Name, Fontname, Fontsize\n"
      "Style: Default,Arial,20\n"
      "\n"
      "[Events]\n"
      "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
      "Comment: 0,0:00:00.00,0:00:09.00,Default,,0,0,0,,not shown\n"
      "Dialogue: 0,0:00:01.50,0:00:03.00,Default,,0,0,0,,{\\i1}Hello{\\i0}, world\\Nsecond\\hline\n"
      "Dialogue: 0,0:00:05.00,0:00:06.00,Default,,0,0,0,,{\\pos(10,20)\\c&H00FF00&}Green\n";
  const std::vector<Shown> expected = {{1500, {"Hello, world", "second line"}},
                                       {3000, {}},
                                       {5000, {"Green"}},
                                       {6000, {}}};
  EXPECT_EQ(shows(ass, "s.ass"), expected);
  EXPECT_EQ(shows(ass, "s.ssa"), expected);
}

TEST_F(TextSubtitle, AssFieldOrderFromTheFormatLine) {
  const char ass[] =
      "[Events]\r\n"
      "Format: Start, End, Text\r\n"
      "Dialogue: 0:00:02.00,0:00:03.00,Short\r\n";
  EXPECT_EQ(shows(ass, "s.ass"), (std::vector<Shown>{{2000, {"Short"}}, {3000, {}}}));
}

TEST_F(TextSubtitle, FormatIsToldByContentNotByExtension) {
  EXPECT_EQ(shows("WEBVTT\n\n00:01.000 --> 00:02.000\nvtt in srt\n", "x.srt"),
            (std::vector<Shown>{{1000, {"vtt in srt"}}, {2000, {}}}));
  EXPECT_EQ(shows(kSubRip, "x.ass")[0].second, Lines{"Hello world"});
}

TEST_F(TextSubtitle, OverlappingCuesAreShownTogether) {
  const char srt[] =
      "1\n00:00:01,000 --> 00:00:04,000\nA\n\n"
      "2\n00:00:02,000 --> 00:00:03,000\nB\n\n"
      "3\n00:00:04,000 --> 00:00:05,000\nC\n\n";
  EXPECT_EQ(shows(srt), (std::vector<Shown>{
                            {1000, {"A"}}, {2000, {"A", "B"}}, {3000, {"A"}}, {4000, {"C"}}, {5000, {}}}));
}

TEST_F(TextSubtitle, AtMostSixteenCuesAtOnce) {
  std::string srt;
  for (int i = 0; i < 20; ++i) srt += "00:00:01,000 --> 00:00:09,000\ncue " + std::to_string(i) + "\n\n";
  srt += "00:00:05,000 --> 00:00:06,000\nlate\n\n";
  const std::vector<Shown> got = shows(srt);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].first, 1000);
  ASSERT_EQ(got[0].second.size(), 16u);
  EXPECT_EQ(got[0].second[15], "cue 15");
  EXPECT_EQ(got[1], (Shown{9000, {}}));
}

TEST_F(TextSubtitle, CuesOutOfOrderAreSorted) {
  const char srt[] =
      "1\n00:00:05,000 --> 00:00:06,000\nlater\n\n"
      "2\n00:00:01,000 --> 00:00:02,000\nearlier\n\n";
  EXPECT_EQ(shows(srt), (std::vector<Shown>{
                            {1000, {"earlier"}}, {2000, {}}, {5000, {"later"}}, {6000, {}}}));
}

TEST_F(TextSubtitle, MalformedCuesAreSkipped) {
  const char srt[] =
      "1\n00:00:xx,000 --> 00:00:02,000\nbad start\n\n"
      "2\n00:00:03,000 --> 00:00:02,000\nends before it starts\n\n"
      "3\nno arrow at all\n\n"
      "4\n00:00:04,000 --> \nno end\n\n"
      "5\n00:00:05,000 --> 00:00:06,000\n\n"
      "6\n00:00:07,000 --> 00:00:08,000\ngood\n\n"
      "7\n00:00:09,000 -> 00:00:10,000\nshort arrow\n\n"
      "8\n00:00:11,000 --> 00:00:12,000\n<i></i>\n";
  EXPECT_EQ(shows(srt), (std::vector<Shown>{{7000, {"good"}}, {8000, {}}}));
}

TEST_F(TextSubtitle, AnUnclosedBracketIsText) {
  EXPECT_EQ(shows("00:00:01,000 --> 00:00:02,000\na < b and {c\n")[0].second,
            Lines{"a < b and {c"});
}

TEST_F(TextSubtitle, FileAndMovieUrls) {
  write("film.srt", kSubRip);
  for (const std::string &source :
       {"file://" + dir_.file("film.srt"), dir_.file("film.mkv"), "file://" + dir_.file("film.mkv")}) {
    travik_subtitle *s = travik_subtitle_create(source.c_str(), nullptr);
    ASSERT_NE(s, nullptr) << source;
    Shown shown;
    ASSERT_TRUE(next(s, shown));
    EXPECT_EQ(shown, (Shown{1000, {"Hello world"}}));
    travik_subtitle_destroy(s);
  }
}

TEST_F(TextSubtitle, FileUrlPathAsTheFileBackEndOpensIt) {
  // "file:///<relative>" names <relative> to the file back-end: a movie
  // opened that way finds its subtitles relative to the working directory.
  write("rel.srt", kSubRip);
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  travik_subtitle *s = travik_subtitle_create("file:///rel.avi", nullptr);
  EXPECT_NE(s, nullptr);
  if (s) travik_subtitle_destroy(s);
  ASSERT_EQ(chdir(cwd), 0);
}

TEST_F(TextSubtitle, LanguagesBesideAMovie) {
  write("movie.en.srt", "00:00:01,000 --> 00:00:03,000\nHello\n\n00:00:05,000 --> 00:00:06,000\nBye\n");
  write("movie.fr.vtt", "WEBVTT\n\n00:02.000 --> 00:04.000\nBonjour\n\n00:05.000 --> 00:06.000\nSalut\n");
  write("movie.ASS", "[Events]\nDialogue: 0,0:00:01.00,0:00:02.00,D,,0,0,0,,Upper\n");
  write("movie.txt", "00:00:01,000 --> 00:00:03,000\nnot a subtitle extension\n");
  write("movie.x.y.srt", "00:00:01,000 --> 00:00:03,000\ntwo dots\n");
  write("movies.srt", "00:00:01,000 --> 00:00:03,000\nanother movie\n");
  write("movie.de.srt", "not a subtitle at all\n");
  travik_subtitle *s = travik_subtitle_create(dir_.file("movie.mp4").c_str(), nullptr);
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(travik_subtitle_getlangcount(s), 3);
  // Sorted by file name; named by the language part, else the extension.
  EXPECT_STREQ(travik_subtitle_getlangname(s, 0), "ass");
  EXPECT_STREQ(travik_subtitle_getlangname(s, 1), "en");
  EXPECT_STREQ(travik_subtitle_getlangname(s, 2), "fr");
  EXPECT_EQ(travik_subtitle_getlangname(s, 3), nullptr);
  EXPECT_EQ(travik_subtitle_getlangindex(s), 0);
  Shown shown;
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{1000, {"Upper"}}));

  EXPECT_EQ(travik_subtitle_setlang(s, 1), 0);
  EXPECT_EQ(travik_subtitle_getlangindex(s), 1);
  // The new language continues at the time reached: "Hello" is on screen.
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{1000, {"Hello"}}));
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{3000, {}}));

  // At 3 s the French "Bonjour" (2 s to 4 s) is on screen.
  EXPECT_EQ(travik_subtitle_setlang(s, 2), 0);
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{2000, {"Bonjour"}}));
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{4000, {}}));
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{5000, {"Salut"}}));

  EXPECT_EQ(travik_subtitle_setlang(s, 3), 1);
  EXPECT_EQ(travik_subtitle_setlang(s, -1), 1);
  EXPECT_EQ(travik_subtitle_getlangindex(s), 2);
  travik_subtitle_destroy(s);
}

TEST_F(TextSubtitle, SeekToInsideBetweenAndPastCues) {
  const char srt[] =
      "1\n00:00:01,000 --> 00:00:02,000\none\n\n"
      "2\n00:00:03,000 --> 00:00:04,000\ntwo\n\n"
      "3\n00:00:04,000 --> 00:00:05,000\nthree\n\n";
  travik_subtitle *s = travik_subtitle_create(write("seek.srt", srt).c_str(), nullptr);
  ASSERT_NE(s, nullptr);
  Shown shown;
  const struct {
    int32_t ms;
    Shown first;
  } cases[] = {
      {1500, {1000, {"one"}}},  // inside: the cue on screen
      {1000, {1000, {"one"}}},  // at its start
      {2500, {3000, {"two"}}},  // between: the next cue
      {2000, {3000, {"two"}}},  // at the end of one: the next
      {0, {1000, {"one"}}},     // before everything
      {4000, {4000, {"three"}}},
      {4999, {4000, {"three"}}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(travik_subtitle_seek(s, c.ms), 0);
    ASSERT_TRUE(next(s, shown)) << c.ms;
    EXPECT_EQ(shown, c.first) << c.ms;
  }
  // After the seek to 4999 the end of "three" follows, then nothing.
  ASSERT_TRUE(next(s, shown));
  EXPECT_EQ(shown, (Shown{5000, {}}));
  EXPECT_FALSE(next(s, shown));
  // Past everything: nothing more to give, and parse leaves the item alone.
  travik_subtitle_seek(s, 5000);
  EXPECT_FALSE(next(s, shown));
  travik_subtitle_seek(s, 60000);
  void *item = &shown;
  EXPECT_NE(travik_subtitle_parse(s, &item), 0);
  EXPECT_EQ(item, &shown);
  travik_subtitle_destroy(s);
}

TEST_F(TextSubtitle, EntriesOutliveTheSource) {
  travik_subtitle *s = travik_subtitle_create(write("a.srt", kSubRip).c_str(), nullptr);
  ASSERT_NE(s, nullptr);
  void *item = nullptr;
  travik_subtitle_parse(s, &item);
  travik_subtitle_destroy(s);
  ASSERT_NE(item, nullptr);
  auto *entry = static_cast<travik_subtitle_entry *>(item);
  EXPECT_EQ(entry->count, 1);
  EXPECT_EQ(std::string(entry->lines[0].text, static_cast<size_t>(entry->lines[0].length)),
            "Hello world");
  entry->release(entry);
}

TEST_F(TextSubtitle, BadInputFailsCleanly) {
  travik_test::StderrCapture errors;
  const std::string binary("\x89PNG\r\n\x1a\n\0\0\0\rIHDR 00:00:01,000 --> 00:00:02,000\n", 48);
  const struct {
    const char *name;
    std::string content;
  } files[] = {
      {"empty.srt", ""},
      {"binary.srt", binary},
      {"cut.srt", "1\n00:00:01,0"},
      {"cut2.srt", "1\n00:00:01,000 --> 00:00:0"},
      {"text.srt", "just some words\nwithout any times\n"},
      {"header.vtt", "WEBVTT\n\n"},
      {"noevents.ass", "[Script Info]\nTitle: x\n"},
  };
  for (const auto &f : files) {
    EXPECT_EQ(travik_subtitle_create(write(f.name, f.content).c_str(), nullptr), nullptr) << f.name;
  }
  EXPECT_EQ(travik_subtitle_create(dir_.file("missing.srt").c_str(), nullptr), nullptr);
  EXPECT_EQ(travik_subtitle_create(dir_.file("lonely.avi").c_str(), nullptr), nullptr);
  EXPECT_EQ(travik_subtitle_create("/no/such/dir/movie.avi", nullptr), nullptr);
  EXPECT_EQ(travik_subtitle_create("http://127.0.0.1:1/movie.avi", nullptr), nullptr);
  EXPECT_EQ(travik_subtitle_create("", nullptr), nullptr);
  EXPECT_EQ(travik_subtitle_create(dir_.path().c_str(), nullptr), nullptr);
  EXPECT_EQ(errors.text(), "");
}

}  // namespace
