// The subtitle framework: driver choice among plugin files by probe score,
// handed-in drivers and the forwarded operations. The test plugins (see
// overlaytest/subtitle_plugin.cpp) are "low" (score 3), "high" (score 5)
// and "second" (only its second driver would accept).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <cstdlib>
#include <string>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(OVERLAY_PLUGINS_DIR));

std::string probed(const char *who) {
  const char *value = std::getenv((std::string("TRAVIK_TEST_PROBED_") + who).c_str());
  return value ? value : "";
}

bool loaded(const char *who) {
  const std::string path = std::string(OVERLAY_PLUGINS_DIR) + "/subtitle/libsubtitle_" + who + ".so";
  void *handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

class SubtitleProbe : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char *who : {"low", "high", "second"})
      unsetenv((std::string("TRAVIK_TEST_PROBED_") + who).c_str());
  }
};

TEST_F(SubtitleProbe, HighestFirstDriverScoreWinsAndLosersAreUnloaded) {
  travik_subtitle *s = travik_subtitle_create("/movies/film.avi", nullptr);
  ASSERT_NE(s, nullptr);
  // Every plugin's first driver saw the movie's own source text.
  EXPECT_EQ(probed("low"), "/movies/film.avi");
  EXPECT_EQ(probed("high"), "/movies/film.avi");
  EXPECT_EQ(probed("second"), "/movies/film.avi");
  EXPECT_STREQ(s->driver->description, "subtitle test high");
  ASSERT_NE(s->plugin, nullptr);
  EXPECT_TRUE(loaded("high"));
  EXPECT_FALSE(loaded("low"));
  EXPECT_FALSE(loaded("second"));
  EXPECT_STREQ(travik_subtitle_getlangname(s, 0), "high");
  travik_subtitle_destroy(s);
  EXPECT_FALSE(loaded("high"));
}

TEST_F(SubtitleProbe, NoPositiveScoreGivesNullWithoutMessage) {
  travik_test::StderrCapture errors;
  EXPECT_EQ(travik_subtitle_create("/movies/refuse.avi", nullptr), nullptr);
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(probed("low"), "/movies/refuse.avi");
  EXPECT_FALSE(loaded("low"));
  EXPECT_FALSE(loaded("high"));
  EXPECT_FALSE(loaded("second"));
}

TEST_F(SubtitleProbe, FailingOpenUnloadsTheWinner) {
  EXPECT_EQ(travik_subtitle_create("/movies/fail.avi", nullptr), nullptr);
  EXPECT_EQ(probed("high"), "/movies/fail.avi");
  EXPECT_FALSE(loaded("high"));
}

TEST_F(SubtitleProbe, SecondDriverIsNeverChosenButCanBeHandedIn) {
  // The "second" plugin's second driver scores 100 for everything, yet only
  // first drivers take part: "refuse" makes the others score 0.
  EXPECT_EQ(travik_subtitle_create("/movies/refuse.mkv", nullptr), nullptr);
  travik_plugin *plugin =
      travik_plugin_create("subtitle/libsubtitle_second.so", TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION);
  ASSERT_NE(plugin, nullptr);
  auto *table = static_cast<const travik_subtitle_driver *>(plugin->drivers);
  travik_subtitle *s = travik_subtitle_create("/movies/refuse.mkv", &table[1]);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->plugin, nullptr);
  EXPECT_EQ(s->driver, &table[1]);
  EXPECT_STREQ(travik_subtitle_getlangname(s, 0), "second");
  travik_subtitle_destroy(s);
  travik_plugin_destroy(plugin);
}

// A handed-in driver that records how it is called.
struct Calls {
  void *state;
  int64_t seek;
  int32_t index;
  int32_t closed;
  std::string opened;
};
Calls calls;

void *rec_open(travik_subtitle *subtitle, const char *source) {
  calls.opened = source;
  EXPECT_NE(subtitle, nullptr);
  return std::getenv("TRAVIK_TEST_REC_FAIL") ? nullptr : &calls;
}
void rec_close(void *state) {
  calls.state = state;
  calls.closed++;
}
int32_t rec_getlangcount(void *state) {
  calls.state = state;
  return 7;
}
const char *rec_getlangname(void *state, int32_t index) {
  calls.state = state;
  calls.index = index;
  return "klingon";
}
int32_t rec_setlang(void *state, int32_t index) {
  calls.state = state;
  calls.index = index;
  return 42;
}
travik_subtitle_entry rec_entry = {1500000, 0, nullptr, nullptr};
int32_t rec_parse(void *state, void **item) {
  calls.state = state;
  *item = &rec_entry;
  return 9;
}
int32_t rec_seek(void *state, int64_t position) {
  calls.state = state;
  calls.seek = position;
  return 11;
}
int32_t rec_getlangindex(void *state) {
  calls.state = state;
  return 3;
}
const travik_subtitle_driver recorder = {"recorder", "",      nullptr,          rec_open,
                                         rec_close,  rec_getlangcount, rec_getlangname,
                                         rec_setlang, rec_parse, rec_seek, rec_getlangindex};

TEST(SubtitleForward, OperationsReachTheDriverWithItsState) {
  calls = Calls();
  travik_subtitle *s = travik_subtitle_create("any source", &recorder);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(calls.opened, "any source");
  EXPECT_EQ(s->state, &calls);
  EXPECT_EQ(travik_subtitle_getlangcount(s), 7);
  EXPECT_EQ(calls.state, &calls);
  EXPECT_STREQ(travik_subtitle_getlangname(s, 5), "klingon");
  EXPECT_EQ(calls.index, 5);
  EXPECT_EQ(travik_subtitle_setlang(s, 2), 42);
  EXPECT_EQ(calls.index, 2);
  EXPECT_EQ(travik_subtitle_getlangindex(s), 3);
  void *item = nullptr;
  EXPECT_EQ(travik_subtitle_parse(s, &item), 9);
  EXPECT_EQ(item, &rec_entry);
  travik_subtitle_destroy(s);
  EXPECT_EQ(calls.closed, 1);
}

TEST(SubtitleForward, SeekGivesMicrosecondsAsAnUnsignedProduct) {
  calls = Calls();
  travik_subtitle *s = travik_subtitle_create("x", &recorder);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(travik_subtitle_seek(s, 2000), 11);
  EXPECT_EQ(calls.seek, 2000000);
  // The milliseconds are taken as unsigned: -1 is 4294967295 ms.
  travik_subtitle_seek(s, -1);
  EXPECT_EQ(calls.seek, INT64_C(4294967295000));
  travik_subtitle_destroy(s);
}

TEST(SubtitleForward, FailingOpenOfAHandedInDriverGivesNull) {
  calls = Calls();
  setenv("TRAVIK_TEST_REC_FAIL", "1", 1);
  EXPECT_EQ(travik_subtitle_create("x", &recorder), nullptr);
  unsetenv("TRAVIK_TEST_REC_FAIL");
  EXPECT_EQ(calls.closed, 0);
}

}  // namespace

namespace {

TEST(SubtitleEntry, CreateCopiesLinesIntoOneBlock) {
  std::string first = "first line";
  const travik_subtitle_line lines[2] = {{first.data(), 5}, {"\xC3\xA9t\xC3\xA9", 5}};
  travik_subtitle_entry *entry = travik_subtitle_entry_create(INT64_C(123456789012), 2, lines);
  first = "overwritten";
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->time, INT64_C(123456789012));
  ASSERT_EQ(entry->count, 2);
  EXPECT_EQ(std::string(entry->lines[0].text), "first");
  EXPECT_EQ(entry->lines[0].length, 5);
  EXPECT_EQ(std::string(entry->lines[1].text), "\xC3\xA9t\xC3\xA9");
  ASSERT_NE(entry->release, nullptr);
  entry->release(entry);

  // An entry without lines clears the screen.
  entry = travik_subtitle_entry_create(5, 0, nullptr);
  EXPECT_EQ(entry->count, 0);
  EXPECT_EQ(entry->lines, nullptr);
  entry->release(entry);
}

}  // namespace
