// Choosing a demuxer from plugin files: two test plugins both claim the
// extension "tst" and the scheme "noio", and report what their probes saw.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <cstdlib>
#include <string>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(PROBE_PLUGINS_DIR));

std::string seen(const char *who) {
  const char *value = std::getenv((std::string("TRAVIK_TEST_PROBE_") + who).c_str());
  return value ? value : "";
}

class Probe : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("TRAVIK_TEST_PROBE_first");
    unsetenv("TRAVIK_TEST_PROBE_second");
    unsetenv("TRAVIK_TEST_OPEN_POSITION");
    unsetenv("TRAVIK_TEST_OPEN_NULL");
  }
  std::string file(const std::string &name, const std::string &content) {
    std::string path = dir_.file(name);
    travik_test::write_file(path, content);
    return path;
  }
  travik_test::TempDir dir_;
};

TEST_F(Probe, EveryDriverProbesFromTheFirstByte) {
  travik_io *io = travik_io_create(file("a.tst", "TEST and more").c_str());
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(seen("first"), "0 4 TEST");
  EXPECT_EQ(seen("second"), "0 4 TEST");
  // The higher score wins, and its driver finds the input at its start.
  EXPECT_STREQ(d->driver->description, "probe test second");
  EXPECT_NE(d->plugin, nullptr);
  EXPECT_STREQ(std::getenv("TRAVIK_TEST_OPEN_POSITION"), "0");
  EXPECT_EQ(d->seekable, 1);
  EXPECT_EQ(d->preroll, 10000);
  EXPECT_EQ(d->fixed_preroll, 0);
  EXPECT_EQ(d->duration, 0u);
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, ExtensionIsMatchedWhateverItsCase) {
  travik_io *io = travik_io_create(file("MOVIE.TST", "TEST").c_str());
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, NoPositiveScoreGivesNull) {
  travik_io *io = travik_io_create(file("b.tst", "ZERO").c_str());
  travik_test::StderrCapture errors;
  EXPECT_EQ(travik_demuxer_create(io, nullptr), nullptr);
  EXPECT_EQ(errors.text(), "");  // no message
  EXPECT_EQ(seen("first"), "0 4 ZERO");
  EXPECT_EQ(seen("second"), "0 4 ZERO");
  travik_io_destroy(io);
}

TEST_F(Probe, SchemeWithoutBackEndIsMatchedByScheme) {
  travik_io *io = travik_io_create("noio://somewhere/stream.tst");
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(seen("first"), "unopened noio");
  EXPECT_EQ(io->backend_data, nullptr);  // never opened
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, UnclaimedExtensionGivesNullWithoutAMessage) {
  travik_io *io = travik_io_create(file("f.none", "TEST").c_str());
  travik_test::StderrCapture errors;
  EXPECT_EQ(travik_demuxer_create(io, nullptr), nullptr);
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(seen("first"), "");  // no driver was asked
  travik_io_destroy(io);
}

TEST_F(Probe, GivenAllocatorIsInstalled) {
  travik_io *io = travik_io_create(file("c.tst", "TEST").c_str());
  travik_demuxer_allocator *a = travik_demuxer_allocator_create();
  travik_demuxer *d = travik_demuxer_create(io, a);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->allocator, a);
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, InputIsOpenedByCreate) {
  travik_io *io = travik_io_create(file("d.tst", "TEST").c_str());
  EXPECT_EQ(io->backend_data, nullptr);
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_NE(io->backend_data, nullptr);
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, NullStateFromOpenIsAccepted) {
  travik_io *io = travik_io_create(file("e.tst", "TEST").c_str());
  setenv("TRAVIK_TEST_OPEN_NULL", "1", 1);
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->state, nullptr);
  EXPECT_STREQ(d->driver->description, "probe test second");
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

TEST_F(Probe, InputThatCannotSeekIsProbedUnopened) {
  // "tcp" is served by a back-end without seeking: matched by extension,
  // probed without being opened (so no connection is ever made).
  travik_io *io = travik_io_create("tcp://127.0.0.1:9/live.tst");
  ASSERT_NE(io->backend, nullptr);
  travik_demuxer *d = travik_demuxer_create(io, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(io->backend_data, nullptr);
  EXPECT_EQ(seen("first"), "-1 0 ");
  EXPECT_EQ(seen("second"), "-1 0 ");
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}

}  // namespace
