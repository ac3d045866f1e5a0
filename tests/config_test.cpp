// INI configuration documents: loading rules, lookups, edits and saving.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <travik/config.h>

#include "util/testutil.h"

using travik_test::read_file;
using travik_test::TempDir;
using travik_test::write_file;

namespace {

// Loads `text` through a file and returns the configuration.
travik_config *parse(const TempDir &dir, const std::string &text) {
  std::string path = dir.file("in.cfg");
  write_file(path, text);
  return travik_config_create(path.c_str());
}

// What saving the configuration writes (through a fresh path).
std::string saved(const TempDir &dir, travik_config *config) {
  std::string path = dir.file("saved.cfg");
  unlink(path.c_str());
  travik_config_write(config, "__mark__", "k", "v");  // force a save
  travik_config_removesection(config, "__mark__");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 1);
  return read_file(path);
}

TEST(Config, CreateWithMissingFileIsEmpty) {
  TempDir dir;
  travik_config *config = travik_config_create(dir.file("none.cfg").c_str());
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(travik_config_read(config, "a", "k", "dflt"), "dflt");
  EXPECT_EQ(saved(dir, config), "");
  travik_config_destroy(config);
}

TEST(Config, CreateWithoutPathIsEmpty) {
  travik_config *config = travik_config_create(nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(travik_config_load(config, nullptr), 0);
  travik_config_destroy(config);
}

TEST(Config, ReadsSectionsAndEntries) {
  TempDir dir;
  travik_config *config = parse(dir, "[one]\nkey = value\nother=2\n[two]\nkey = three\n");
  EXPECT_STREQ(travik_config_read(config, "one", "key", nullptr), "value");
  EXPECT_STREQ(travik_config_read(config, "one", "other", nullptr), "2");
  EXPECT_STREQ(travik_config_read(config, "two", "key", nullptr), "three");
  EXPECT_STREQ(travik_config_read(config, "two", "other", "none"), "none");
  EXPECT_STREQ(travik_config_read(config, "three", "key", "none"), "none");
  travik_config_destroy(config);
}

TEST(Config, NamesAreCaseSensitive) {
  TempDir dir;
  travik_config *config = parse(dir, "[Sec]\nKey = v\n");
  EXPECT_STREQ(travik_config_read(config, "sec", "Key", "no"), "no");
  EXPECT_STREQ(travik_config_read(config, "Sec", "key", "no"), "no");
  EXPECT_STREQ(travik_config_read(config, "Sec", "Key", "no"), "v");
  travik_config_destroy(config);
}

TEST(Config, KeyLinesBeforeFirstSectionAreIgnored) {
  TempDir dir;
  travik_config *config = parse(dir, "early = 1\n[a]\nlate = 2\n");
  EXPECT_EQ(saved(dir, config), "[a]\nlate = 2\n");
  travik_config_destroy(config);
}

TEST(Config, CommentOnlyInFirstColumn) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\n# note = 1\n #x = 2\nk = v # not a comment\n");
  EXPECT_STREQ(travik_config_read(config, "a", "# note", "no"), "no");
  EXPECT_STREQ(travik_config_read(config, "a", " #x", "no"), "2");
  EXPECT_STREQ(travik_config_read(config, "a", "k", "no"), "v # not a comment");
  travik_config_destroy(config);
}

TEST(Config, DuplicateSectionsAreKeptAndFirstIsFound) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nk = first\n[b]\n[a]\nk = second\nonly = 2\n");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "first");
  EXPECT_STREQ(travik_config_read(config, "a", "only", "hidden"), "hidden");
  travik_config_write(config, "a", "new", "x");
  EXPECT_EQ(saved(dir, config), "[a]\nk = first\nnew = x\n[b]\n[a]\nk = second\nonly = 2\n");
  travik_config_destroy(config);
}

TEST(Config, DuplicateKeysAreKeptAndFirstIsFound) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nk = 1\nk = 2\n");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "1");
  travik_config_write(config, "a", "k", "3");
  EXPECT_EQ(saved(dir, config), "[a]\nk = 3\nk = 2\n");
  travik_config_removeentry(config, "a", "k");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "2");
  travik_config_destroy(config);
}

TEST(Config, ValueKeepsEqualsSignsAndLosesOuterBlanks) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nkey = value with = signs   \n");
  EXPECT_STREQ(travik_config_read(config, "a", "key", nullptr), "value with = signs");
  travik_config_destroy(config);
}

TEST(Config, KeyKeepsLeadingBlanksAndLosesTrailingOnes) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\n  key \t= v\n");
  EXPECT_STREQ(travik_config_read(config, "a", "  key", nullptr), "v");
  EXPECT_STREQ(travik_config_read(config, "a", "key", "no"), "no");
  travik_config_destroy(config);
}

TEST(Config, EmptyValueAndEmptyKey) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nkey =\n=value\n");
  EXPECT_STREQ(travik_config_read(config, "a", "key", "dflt"), "");
  EXPECT_STREQ(travik_config_read(config, "a", "", "dflt"), "value");
  travik_config_destroy(config);
}

TEST(Config, EmptyValueIsSavedWithTrailingBlankAndReadsBackEmpty) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nkey =\n");
  std::string text = saved(dir, config);
  EXPECT_EQ(text, "[a]\nkey = \n");
  travik_config_destroy(config);
  travik_config *again = travik_config_create(dir.file("saved.cfg").c_str());
  EXPECT_STREQ(travik_config_read(again, "a", "key", "dflt"), "");
  travik_config_destroy(again);
}

TEST(Config, LinesWithoutEqualsAreIgnored) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\njust text\n\nk = v\n");
  EXPECT_EQ(saved(dir, config), "[a]\nk = v\n");
  travik_config_destroy(config);
}

TEST(Config, IndentedHeaderIsNotASection) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\n  [b]\nk = v\n");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "v");
  EXPECT_STREQ(travik_config_read(config, "b", "k", "none"), "none");
  travik_config_destroy(config);
}

TEST(Config, SectionNameIsTakenAsItIs) {
  TempDir dir;
  travik_config *config = parse(dir, "[ spaced name ] trailing\nk = v\n");
  EXPECT_STREQ(travik_config_read(config, " spaced name ", "k", nullptr), "v");
  travik_config_destroy(config);
}

TEST(Config, HeaderWithoutClosingBracketKeepsCurrentSection) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\n[broken\nk = v\n");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "v");
  EXPECT_EQ(saved(dir, config), "[a]\nk = v\n");
  travik_config_destroy(config);
}

TEST(Config, CarriageReturnsAreStripped) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\r\nk = v\r\n");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "v");
  travik_config_destroy(config);
}

TEST(Config, LastLineWithoutNewline) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nk = v");
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "v");
  travik_config_destroy(config);
}

TEST(Config, LineOf2047CharactersIsReadWhole) {
  TempDir dir;
  std::string value(2047 - 4, 'x');  // "k = " + value
  travik_config *config = parse(dir, "[a]\nk = " + value + "\nnext = 1\n");
  EXPECT_EQ(std::string(travik_config_read(config, "a", "k", "")), value);
  EXPECT_STREQ(travik_config_read(config, "a", "next", nullptr), "1");
  travik_config_destroy(config);
}

TEST(Config, LongerLineIsSplitAndEachPartParsed) {
  TempDir dir;
  // 2047 characters, then "tail=yes" continues the same line.
  std::string first = "k = " + std::string(2047 - 4, 'x');
  travik_config *config = parse(dir, "[a]\n" + first + "tail=yes\n");
  EXPECT_EQ(std::string(travik_config_read(config, "a", "k", "")), std::string(2043, 'x'));
  EXPECT_STREQ(travik_config_read(config, "a", "tail", nullptr), "yes");
  travik_config_destroy(config);
}

TEST(Config, LoadAppendsAndReplacesStoredPath) {
  TempDir dir;
  write_file(dir.file("one.cfg"), "[a]\nk = 1\n");
  write_file(dir.file("two.cfg"), "[a]\nk = 2\n[b]\nj = 3\n");
  travik_config *config = travik_config_create(dir.file("one.cfg").c_str());
  EXPECT_EQ(travik_config_load(config, dir.file("two.cfg").c_str()), 1);
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "1");
  EXPECT_STREQ(travik_config_read(config, "b", "j", nullptr), "3");
  // Loading does not mark the configuration as changed.
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(dir.file("two.cfg")), "[a]\nk = 2\n[b]\nj = 3\n");
  // The stored path is now two.cfg: a change saves there.
  travik_config_write(config, "c", "x", "y");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(dir.file("two.cfg")), "[a]\nk = 1\n[a]\nk = 2\n[b]\nj = 3\n[c]\nx = y\n");
  EXPECT_EQ(read_file(dir.file("one.cfg")), "[a]\nk = 1\n");
  travik_config_destroy(config);
}

TEST(Config, LoadOfMissingFileLeavesConfigurationUnchanged) {
  TempDir dir;
  write_file(dir.file("one.cfg"), "[a]\nk = 1\n");
  travik_config *config = travik_config_create(dir.file("one.cfg").c_str());
  EXPECT_EQ(travik_config_load(config, dir.file("missing.cfg").c_str()), 0);
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "1");
  travik_config_write(config, "a", "k", "2");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(dir.file("one.cfg")), "[a]\nk = 2\n");
  EXPECT_FALSE(travik_test::read_file(dir.file("missing.cfg")).size());
  travik_config_destroy(config);
}

TEST(Config, WriteAppendsSectionsAndEntriesInOrder) {
  TempDir dir;
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "s", "b", "2");
  travik_config_write(config, "s", "a", "1");
  travik_config_write(config, "r", "c", "3");
  travik_config_write(config, "s", "b", "4");
  EXPECT_EQ(saved(dir, config), "[s]\nb = 4\na = 1\n[r]\nc = 3\n");
  travik_config_destroy(config);
}

TEST(Config, ReturnedValueStaysValidUntilChanged) {
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "s", "k", "value");
  const char *value = travik_config_read(config, "s", "k", nullptr);
  travik_config_write(config, "s", "other", "x");
  EXPECT_STREQ(value, "value");
  travik_config_destroy(config);
}

TEST(Config, NullValueIsInvisibleAndNotSaved) {
  TempDir dir;
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "s", "k", nullptr);
  travik_config_write(config, "s", "j", "1");
  EXPECT_STREQ(travik_config_read(config, "s", "k", "dflt"), "dflt");
  EXPECT_EQ(saved(dir, config), "[s]\nj = 1\n");
  // Writing a value over the null entry makes it visible in its place.
  travik_config_write(config, "s", "k", "now");
  EXPECT_EQ(saved(dir, config), "[s]\nk = now\nj = 1\n");
  travik_config_destroy(config);
}

TEST(Config, RemoveEntryAndSection) {
  TempDir dir;
  travik_config *config = parse(dir, "[a]\nk = 1\nj = 2\n[b]\nk = 3\n[a]\nk = 4\n");
  travik_config_removeentry(config, "a", "k");
  EXPECT_STREQ(travik_config_read(config, "a", "k", "gone"), "gone");
  travik_config_removesection(config, "a");
  // The second [a] is now the first.
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "4");
  EXPECT_EQ(saved(dir, config), "[b]\nk = 3\n[a]\nk = 4\n");
  travik_config_destroy(config);
}

TEST(Config, RemovingAbsentThingsDoesNotMarkModified) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path, "[a]\nk = 1\n");
  travik_config *config = travik_config_create(path.c_str());
  travik_config_removeentry(config, "a", "missing");
  travik_config_removeentry(config, "missing", "k");
  travik_config_removesection(config, "missing");
  unlink(path.c_str());
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(access(path.c_str(), F_OK), -1) << "an unchanged configuration wrote its file";
  travik_config_destroy(config);
}

TEST(Config, UnchangedSaveWritesNothing) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path, "# comment\n[a]\nk=1\n");
  travik_config *config = travik_config_create(path.c_str());
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(path), "# comment\n[a]\nk=1\n");
  EXPECT_EQ(access((path + ".new").c_str(), F_OK), -1);
  travik_config_destroy(config);
}

TEST(Config, SaveAfterClearWritesEmptyFileAndKeepsPath) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path, "[a]\nk=1\n");
  travik_config *config = travik_config_create(path.c_str());
  travik_config_clear(config);
  EXPECT_STREQ(travik_config_read(config, "a", "k", "gone"), "gone");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(path), "");
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  travik_config_destroy(config);
}

TEST(Config, SaveDropsCommentsAndNormalisesSpacing) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path, "# head\n[a]\nk=1\n\n[b]\n  j   =   2\n");
  travik_config *config = travik_config_create(path.c_str());
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(path), "[a]\nk = 1\n[b]\n  j = 2\n");
  travik_config_destroy(config);
}

TEST(Config, SuccessfulSaveClearsModifiedAndStoresNewPath) {
  TempDir dir;
  travik_config *config = travik_config_create(dir.file("first.cfg").c_str());
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, dir.file("second.cfg").c_str()), 1);
  EXPECT_EQ(read_file(dir.file("second.cfg")), "[a]\nk = 1\n");
  EXPECT_EQ(access(dir.file("second.cfg.new").c_str(), F_OK), -1);
  // Nothing changed since: no write at all.
  unlink(dir.file("second.cfg").c_str());
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(access(dir.file("second.cfg").c_str(), F_OK), -1);
  // The next change goes to the new stored path.
  travik_config_write(config, "a", "k", "2");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  EXPECT_EQ(read_file(dir.file("second.cfg")), "[a]\nk = 2\n");
  EXPECT_EQ(access(dir.file("first.cfg").c_str(), F_OK), -1);
  travik_config_destroy(config);
}

TEST(Config, SavedFileHasMode0644) {
  TempDir dir;
  mode_t old = umask(022);
  travik_config *config = travik_config_create(dir.file("c.cfg").c_str());
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, nullptr), 1);
  umask(old);
  struct stat info;
  ASSERT_EQ(stat(dir.file("c.cfg").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  travik_config_destroy(config);
}

TEST(Config, StaleLongerTemporaryFileFailsOnceThenSaves) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path, "[old]\n");
  write_file(path + ".new", std::string(500, 'z'));
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 0);
  EXPECT_EQ(access((path + ".new").c_str(), F_OK), -1);
  EXPECT_EQ(read_file(path), "[old]\n");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 1);
  EXPECT_EQ(read_file(path), "[a]\nk = 1\n");
  travik_config_destroy(config);
}

TEST(Config, ShorterStaleTemporaryFileIsOverwritten) {
  TempDir dir;
  std::string path = dir.file("c.cfg");
  write_file(path + ".new", "[x]\n");
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 1);
  EXPECT_EQ(read_file(path), "[a]\nk = 1\n");
  travik_config_destroy(config);
}

TEST(Config, SaveFailsWhenTemporaryCannotBeCreated) {
  TempDir dir;
  std::string path = dir.file("no/such/dir/c.cfg");
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 0);
  EXPECT_STREQ(travik_config_read(config, "a", "k", nullptr), "1");
  EXPECT_EQ(travik_config_save(config, nullptr), 0);  // no path at all
  travik_config_destroy(config);
}

TEST(Config, FailedWriteIsReportedAsSuccessAndStaysModified) {
  // /dev/full accepts the open but fails every write with ENOSPC; the
  // temporary name is then /dev/full itself when the target is "/dev/full"
  // minus ".new", so link one in a scratch directory instead.
  TempDir dir;
  std::string path = dir.file("c.cfg");
  if (symlink("/dev/full", (path + ".new").c_str()) != 0) GTEST_SKIP() << "no symlink";
  travik_config *config = travik_config_create(nullptr);
  travik_config_write(config, "a", "k", "1");
  EXPECT_EQ(travik_config_save(config, path.c_str()), 1);
  EXPECT_EQ(access(path.c_str(), F_OK), -1);  // the target was never written
  // Still modified: a later save, now possible, writes it.
  EXPECT_EQ(travik_config_save(config, path.c_str()), 1);
  EXPECT_EQ(read_file(path), "[a]\nk = 1\n");
  travik_config_destroy(config);
}

TEST(Config, NullArgumentsAreHarmless) {
  EXPECT_EQ(travik_config_load(nullptr, nullptr), 0);
  EXPECT_EQ(travik_config_save(nullptr, nullptr), 0);
  EXPECT_STREQ(travik_config_read(nullptr, "a", "b", "d"), "d");
  travik_config *config = travik_config_create(nullptr);
  EXPECT_STREQ(travik_config_read(config, nullptr, "b", "d"), "d");
  travik_config_write(config, nullptr, "k", "v");
  travik_config_removeentry(config, "a", nullptr);
  travik_config_removesection(config, nullptr);
  travik_config_destroy(config);
  travik_config_destroy(nullptr);
}

}  // namespace
