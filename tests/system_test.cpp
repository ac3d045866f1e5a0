#include <gtest/gtest.h>
#include <travik/system.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "util/testutil.h"

namespace {

using travik_test::in_child;

// --- diagnostics ---

TEST(Diagnostics, WarningAddsANewline) {
  travik_test::StderrCapture capture;
  travik_warning("value %d of %s", 7, "x");
  EXPECT_EQ(capture.text(), "value 7 of x\n");
}

TEST(Diagnostics, WarningDetailFormat) {
  travik_test::StderrCapture capture;
  travik_warning_detail("travik_player_open", "player", 42, "bad %s", "input");
  EXPECT_EQ(capture.text(),
            "(!!!)  *** WARNING [bad input] *** [player:42 in travik_player_open ()]\n");
}

TEST(Diagnostics, LongDetailMessagesAreCutTo1023Characters) {
  std::string longtext(3000, 'a');
  travik_test::StderrCapture capture;
  travik_warning_detail("f", "s", 1, "%s", longtext.c_str());
  std::string expected =
      "(!!!)  *** WARNING [" + std::string(1023, 'a') + "] *** [s:1 in f ()]\n";
  EXPECT_EQ(capture.text(), expected);
}

TEST(DiagnosticsDeathTest, CriticalPrintsAndAborts) {
  EXPECT_DEATH(travik_critical("fatal %d", 3), "^fatal 3\n");
}

TEST(DiagnosticsDeathTest, CriticalDetailPrintsAndAborts) {
  EXPECT_DEATH(travik_critical_detail("travik_draw_setfont", "draw", 138, "font"),
               "\\(!!!\\)  \\*\\*\\* CRITICAL \\[font\\] \\*\\*\\* "
               "\\[draw:138 in travik_draw_setfont \\(\\)\\]\n");
}

// --- directories (computed once per process, so each case runs in a child) ---

std::string dirs_with(const char *home, const char *plugins, int user) {
  return in_child([=] {
    if (home) setenv("HOME", home, 1); else unsetenv("HOME");
    if (plugins) setenv("TRAVIK_PLUGINS_DIR", plugins, 1); else unsetenv("TRAVIK_PLUGINS_DIR");
    return std::string(travik_homedir()) + "|" + travik_basedir() + "|" + travik_plugindir(user);
  });
}

TEST(Directories, HomeUnsetFallsBackToTmp) {
  std::string result = in_child([] {
    unsetenv("HOME");
    return std::string(travik_homedir());
  });
  EXPECT_EQ(result, "/tmp/");
}

TEST(Directories, HomeGetsOneTrailingSlash) {
  EXPECT_EQ(in_child([] {
              setenv("HOME", "/root", 1);
              return std::string(travik_homedir());
            }),
            "/root/");
  EXPECT_EQ(in_child([] {
              setenv("HOME", "/root/", 1);
              return std::string(travik_homedir());
            }),
            "/root/");
}

TEST(Directories, BaseAndUserPluginDirectoriesHaveDoubledSlashes) {
  travik_test::TempDir home;
  std::string result = dirs_with(home.path().c_str(), nullptr, 1);
  EXPECT_EQ(result, home.path() + "/|" + home.path() + "//.travik/|" + home.path() +
                        "//.travik//plugins/");
  // The base directory was created with mode 0700; the plugin directory was not.
  struct stat info;
  ASSERT_EQ(stat((home.path() + "/.travik").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  EXPECT_NE(stat((home.path() + "/.travik/plugins").c_str(), &info), 0);
}

TEST(Directories, BaseDirectoryCreationFailureIsSilent) {
  std::string result = dirs_with("/proc/nonexistent-home", nullptr, 1);
  EXPECT_EQ(result, "/proc/nonexistent-home/|/proc/nonexistent-home//.travik/|"
                    "/proc/nonexistent-home//.travik//plugins/");
}

TEST(Directories, CompiledInPluginDirectory) {
  travik_test::TempDir home;
  std::string result = dirs_with(home.path().c_str(), nullptr, 0);
  EXPECT_EQ(result.substr(result.rfind('|') + 1), TRAVIK_PLUGIN_INSTALL_DIR);
}

TEST(Directories, PluginsEnvironmentWinsAndIsReturnedAsIs) {
  travik_test::TempDir home;
  std::string user = dirs_with(home.path().c_str(), "/opt/plugins", 1);
  std::string builtin = dirs_with(home.path().c_str(), "/opt/plugins", 0);
  EXPECT_EQ(user.substr(user.rfind('|') + 1), "/opt/plugins");
  EXPECT_EQ(builtin.substr(builtin.rfind('|') + 1), "/opt/plugins");
}

TEST(Directories, ReturnedBuffersAreStable) {
  std::string result = in_child([] {
    setenv("HOME", "/first", 1);
    const char *first = travik_homedir();
    setenv("HOME", "/second", 1);
    const char *second = travik_homedir();
    return std::string(first == second ? "same " : "different ") + second;
  });
  EXPECT_EQ(result, "same /first/");
}

// --- character sets ---

TEST(Charset, DotRuleReturnsTheTextAfterTheFirstDot) {
  const char *locale = "ko_KR.eucKR";
  EXPECT_STREQ(travik_parse_charset(locale), "eucKR");
  EXPECT_EQ(travik_parse_charset(locale), locale + 6);  // a pointer into the text
  EXPECT_STREQ(travik_parse_charset("de_DE.UTF-8@euro"), "UTF-8@euro");
  EXPECT_STREQ(travik_parse_charset("a.b.c"), "b.c");
}

TEST(Charset, TableRows) {
  EXPECT_STREQ(travik_parse_charset("zh_TW"), "big5");
  EXPECT_STREQ(travik_parse_charset("zh-TW"), "big5");
  EXPECT_STREQ(travik_parse_charset("ZH_cn"), "gbk");
  EXPECT_STREQ(travik_parse_charset("zh-CN"), "gbk");
  EXPECT_STREQ(travik_parse_charset("ko-KR"), "eucKR");
  EXPECT_STREQ(travik_parse_charset("KO_kr"), "eucKR");
  EXPECT_STREQ(travik_parse_charset("ko_KR_extra"), "eucKR");
  EXPECT_STREQ(travik_parse_charset("kr-KR"), "eucKR");
}

TEST(Charset, EverythingElseIsAscii) {
  EXPECT_STREQ(travik_parse_charset(nullptr), "ASCII");
  EXPECT_STREQ(travik_parse_charset("ja_JP"), "ASCII");
  EXPECT_STREQ(travik_parse_charset("C"), "ASCII");
  EXPECT_STREQ(travik_parse_charset("POSIX"), "ASCII");
  EXPECT_STREQ(travik_parse_charset("en_US"), "ASCII");
  EXPECT_STREQ(travik_parse_charset("ko"), "ASCII");  // shorter than the prefix
  EXPECT_STREQ(travik_parse_charset(""), "ASCII");
}

TEST(Charset, LocalAndApplicationCharsets) {
  EXPECT_EQ(in_child([] {
              setenv("LANG", "zh_TW", 1);
              unsetenv("TRAVIK_LANG");
              return std::string(travik_local_charset()) + "|" + travik_charset();
            }),
            "big5|big5");
  EXPECT_EQ(in_child([] {
              setenv("LANG", "ko_KR.eucKR", 1);
              setenv("TRAVIK_LANG", "zh_CN", 1);
              return std::string(travik_local_charset()) + "|" + travik_charset();
            }),
            "eucKR|gbk");
  EXPECT_EQ(in_child([] {
              unsetenv("LANG");
              unsetenv("TRAVIK_LANG");
              return std::string(travik_local_charset()) + "|" + travik_charset();
            }),
            "ASCII|ASCII");
}

TEST(Utf8, EncodeFromLatin1) {
  TRAVIK_SKIP_WITHOUT_ICONV("ISO-8859-1", "UTF-8");
  const char text[] = "caf\xE9";
  char *out = nullptr;
  int32_t length = -1;
  ASSERT_EQ(travik_utf8_encode("ISO-8859-1", text, 4, &out, &length), 1);
  EXPECT_EQ(length, 5);
  EXPECT_EQ(std::string(out, 7), std::string("caf\xC3\xA9\0\0", 7));
  free(out);
}

TEST(Utf8, DecodeToUtf16EndsWithTwoZeroBytes) {
  TRAVIK_SKIP_WITHOUT_ICONV("UTF-8", "UTF-16LE");
  char *out = nullptr;
  int32_t length = -1;
  ASSERT_EQ(travik_utf8_decode("UTF-16LE", "ab", 2, &out, &length), 1);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(out, 6), std::string("a\0b\0\0\0", 6));
  free(out);
}

TEST(Utf8, DecodeToEucKr) {
  TRAVIK_SKIP_WITHOUT_ICONV("UTF-8", "EUC-KR");
  char *out = nullptr;
  int32_t length = -1;
  // U+AC00 (HANGUL SYLLABLE GA) is B0 A1 in EUC-KR.
  ASSERT_EQ(travik_utf8_decode("eucKR", "\xEA\xB0\x80", 3, &out, &length), 1);
  EXPECT_EQ(length, 2);
  EXPECT_EQ(std::string(out, 2), "\xB0\xA1");
  free(out);
}

TEST(Utf8, EmptyTextSucceedsWithTwoZeroBytes) {
  char *out = nullptr;
  int32_t length = -1;
  ASSERT_EQ(travik_utf8_encode("ASCII", "", 0, &out, &length), 1);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[1], 0);
  free(out);
}

TEST(Utf8, OutputMayFillTheWholeBufferOf4TimesTheLengthPlus4) {
  TRAVIK_SKIP_WITHOUT_ICONV("UTF-8", "UTF-32");
  // One byte of UTF-8 becomes a byte-order mark and one UTF-32 unit: 8
  // bytes, exactly 4 * 1 + 4. The terminators go after it.
  char *out = nullptr;
  int32_t length = -1;
  ASSERT_EQ(travik_utf8_decode("UTF-32LE", "a", 1, &out, &length), 1);
  EXPECT_EQ(length, 4);
  free(out);
  out = nullptr;
  ASSERT_EQ(travik_utf8_decode("UTF-32", "a", 1, &out, &length), 1);
  ASSERT_EQ(length, 8);
  EXPECT_EQ(std::string(out + 4, 6), std::string("a\0\0\0\0\0", 6));
  free(out);
}

TEST(Utf8, NullTextFails) {
  char *out = reinterpret_cast<char *>(1);
  int32_t length = -1;
  EXPECT_EQ(travik_utf8_encode("ASCII", nullptr, 3, &out, &length), 0);
  EXPECT_EQ(out, reinterpret_cast<char *>(1));
}

TEST(Utf8, UnknownCharsetFails) {
  char *out = nullptr;
  int32_t length = -1;
  EXPECT_EQ(travik_utf8_encode("no-such-charset", "abc", 3, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(length, -1);
}

TEST(Utf8, TruncatedSequenceFailsTheWholeConversion) {
  char *out = nullptr;
  int32_t length = -1;
  EXPECT_EQ(travik_utf8_decode("ISO-8859-1", "ab\xC3", 3, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
}

TEST(Utf8, InvalidSequenceFails) {
  char *out = nullptr;
  int32_t length = -1;
  EXPECT_EQ(travik_utf8_decode("ISO-8859-1", "a\xFF" "b", 3, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
}

TEST(Utf8, UnrepresentableCharacterFails) {
  char *out = nullptr;
  int32_t length = -1;
  EXPECT_EQ(travik_utf8_decode("ASCII", "caf\xC3\xA9", 5, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
}

TEST(Utf8, SkipTable) {
  for (int i = 0; i < 32; i++) EXPECT_EQ(UTF8_SKIP_TABLE[i], 2) << i;
  for (int i = 32; i < 48; i++) EXPECT_EQ(UTF8_SKIP_TABLE[i], 3) << i;
  for (int i = 48; i < 56; i++) EXPECT_EQ(UTF8_SKIP_TABLE[i], 4) << i;
  for (int i = 56; i < 60; i++) EXPECT_EQ(UTF8_SKIP_TABLE[i], 5) << i;
  EXPECT_EQ(UTF8_SKIP_TABLE[60], 6);
  EXPECT_EQ(UTF8_SKIP_TABLE[61], 6);
  EXPECT_EQ(UTF8_SKIP_TABLE[62], 1);
  EXPECT_EQ(UTF8_SKIP_TABLE[63], 1);
}

TEST(GlobalLock, IsAUsableMutex) {
  EXPECT_EQ(pthread_mutex_trylock(&travik_global_lock), 0);
  EXPECT_EQ(pthread_mutex_unlock(&travik_global_lock), 0);
}

}  // namespace
