// The demuxer framework driven with a driver table of the test's own: the
// demuxer record is set up as travik_demuxer_create leaves it once it has
// chosen a driver. Choosing drivers from plugin files is covered by
// test_playback.
#include <gtest/gtest.h>
#include <travik/demuxer.h>
#include <travik/io.h>
#include <util/testutil.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <thread>

namespace {

// What the fake driver saw and does.
struct Fake {
  travik_demuxer *demuxer = nullptr;
  int32_t header_result = 0;
  int32_t parse_result = 0;
  bool produce = true;
  int32_t parses = 0;
  int64_t seek_position = 0;
  int32_t seek_flags = 0;
  int32_t closes = 0;
  int lock_busy_in_header = -1;
  int lock_busy_in_control = -1;
  int lock_busy_in_parse = -1;
  int lock_busy_in_seek = -1;
  const char *title = nullptr;
};
Fake fake;

int32_t fake_probe(travik_io *, int32_t) { return 1; }
void *fake_open(travik_demuxer *demuxer, int32_t) {
  fake.demuxer = demuxer;
  return &fake;
}
void fake_close(void *state) { static_cast<Fake *>(state)->closes++; }

// 1 when the demuxer's lock is held (by the framework around the call).
int lock_busy(travik_demuxer *demuxer) {
  if (pthread_mutex_trylock(&demuxer->lock) == EBUSY) return 1;
  pthread_mutex_unlock(&demuxer->lock);
  return 0;
}

int32_t fake_parseheader(void *state) {
  auto *f = static_cast<Fake *>(state);
  f->lock_busy_in_header = lock_busy(f->demuxer);
  if (f->title) travik_metadata_settext(&f->demuxer->metadata, TRAVIK_META_TITLE, f->title);
  return f->header_result;
}
int32_t fake_parse(void *state, travik_packet **packet) {
  auto *f = static_cast<Fake *>(state);
  f->lock_busy_in_parse = lock_busy(f->demuxer);
  f->parses++;
  if (f->produce) {
    travik_demuxer_allocator *a = f->demuxer->allocator;
    travik_packet *p = a->alloc(a->user, 10);
    p->pts = f->parses;
    *packet = p;
  }
  return f->parse_result;
}
int32_t fake_seek(void *state, int64_t position, int32_t flags) {
  auto *f = static_cast<Fake *>(state);
  f->lock_busy_in_seek = lock_busy(f->demuxer);
  f->seek_position = position;
  f->seek_flags = flags;
  return 3;
}
int32_t fake_control(void *state, int32_t command, void *argument) {
  auto *f = static_cast<Fake *>(state);
  f->lock_busy_in_control = lock_busy(f->demuxer);
  return command * 10 + (argument ? 1 : 0);
}

travik_demuxer_driver drivers[] = {
    {"fake", "fake", fake_probe, fake_open, fake_close, fake_parseheader, fake_parse, fake_seek,
     fake_control},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

class Demuxer : public ::testing::Test {
 protected:
  void SetUp() override {
    fake = Fake();
    input_ = travik_io_create("/nonexistent/dir/Some Movie.final.avi");
    demuxer_ = make(&drivers[0], nullptr);
  }
  void TearDown() override {
    if (demuxer_) travik_demuxer_destroy(demuxer_);
    travik_io_destroy(input_);
  }
  // A demuxer as creation leaves it after choosing `driver`.
  travik_demuxer *make(const travik_demuxer_driver *driver, travik_demuxer_allocator *allocator) {
    auto *d = static_cast<travik_demuxer *>(std::calloc(1, sizeof(travik_demuxer)));
    d->input = input_;
    d->driver = driver;
    travik_metadata_init(&d->metadata);
    pthread_mutex_init(&d->lock, nullptr);
    travik_list_init(&d->packets);
    d->allocator = allocator ? allocator : travik_demuxer_allocator_create();
    d->state = driver->open(d, 0);
    d->seekable = 1;
    d->preroll = 10000;
    return d;
  }
  travik_stream *stream(int32_t type, int32_t bitrate, int64_t duration, int32_t id = 0) {
    streams_.emplace_back();
    travik_stream *s = &streams_.back();
    travik_stream_init(s);
    s->info.type = type;
    s->info.bitrate = bitrate;
    s->duration = duration;
    s->id = id;
    return s;
  }
  travik_io *input_ = nullptr;
  travik_demuxer *demuxer_ = nullptr;
  std::deque<travik_stream> streams_;
};

TEST(Packet, InitSetsEveryFieldButOne) {
  travik_packet p;
  std::memset(&p, 0x5A, sizeof p);
  travik_packet_init(&p);
  EXPECT_EQ(p.stream, -1);
  EXPECT_EQ(p.reserved, 0x5A5A5A5A);  // left as it was
  EXPECT_EQ(p.user0, 0);
  EXPECT_EQ(p.user1, 0);
  EXPECT_EQ(p.pts, -1);
  EXPECT_EQ(p.time2, -1);
  EXPECT_EQ(p.flags, 0u);
  EXPECT_EQ(p.data, nullptr);
  EXPECT_EQ(p.size, 0);
  EXPECT_EQ(p.extra, -1);
}

TEST(Stream, InitZeroFills) {
  travik_stream s;
  std::memset(&s, 0x5A, sizeof s);
  travik_stream_init(&s);
  const auto *bytes = reinterpret_cast<const uint8_t *>(&s);
  for (size_t i = 0; i < sizeof s; i++) ASSERT_EQ(bytes[i], 0) << i;
}

TEST(PacketAllocator, RefusesSizesBelowOne) {
  travik_demuxer_allocator *a = travik_demuxer_allocator_create();
  EXPECT_EQ(a->user, nullptr);
  EXPECT_EQ(a->alloc(a->user, 0), nullptr);
  EXPECT_EQ(a->alloc(a->user, -5), nullptr);
  a->destroy(a);
}

TEST(PacketAllocator, PayloadFollowsTheRecord) {
  travik_demuxer_allocator *a = travik_demuxer_allocator_create();
  travik_packet *p = a->alloc(a->user, 100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->data, reinterpret_cast<uint8_t *>(p + 1));
  EXPECT_EQ(p->size, 100);
  EXPECT_EQ(p->stream, -1);
  EXPECT_EQ(p->pts, -1);
  EXPECT_EQ(p->extra, -1);
  std::memset(p->data, 1, 100);  // the whole payload is usable
  ASSERT_NE(p->release, nullptr);
  p->release(p);
  a->destroy(a);
}

TEST(PacketAllocator, ReleaseTakesThePacketOffItsList) {
  travik_demuxer_allocator *a = travik_demuxer_allocator_create();
  travik_list list;
  travik_list_init(&list);
  travik_packet *p1 = a->alloc(a->user, 8);
  travik_packet *p2 = a->alloc(a->user, 8);
  travik_list_append(&list, p1);
  travik_list_append(&list, p2);
  p1->release(p1);
  EXPECT_EQ(list.count, 1);
  EXPECT_EQ(list.first, p2);
  travik_list_destroy(&list);
  a->destroy(a);
}

TEST_F(Demuxer, ParseQueuesThePacketAndClearsTheArgument) {
  travik_packet *out = reinterpret_cast<travik_packet *>(0x1);
  EXPECT_EQ(travik_demuxer_parse(demuxer_, &out), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(demuxer_->packets.count, 1);
  travik_packet *p = travik_demuxer_pop(demuxer_);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->pts, 1);
  p->release(p);
  EXPECT_EQ(travik_demuxer_pop(demuxer_), nullptr);
}

TEST_F(Demuxer, ParseHandsBackTheDriverStatusUnchanged) {
  fake.parse_result = 77;
  fake.produce = false;
  EXPECT_EQ(travik_demuxer_parse(demuxer_, nullptr), 77);
  EXPECT_EQ(demuxer_->packets.count, 0);
}

TEST_F(Demuxer, PushAndPopKeepTheOrder) {
  travik_demuxer_allocator *a = demuxer_->allocator;
  travik_packet *p1 = a->alloc(a->user, 4);
  travik_packet *p2 = a->alloc(a->user, 4);
  travik_demuxer_push(demuxer_, p1);
  travik_demuxer_push(demuxer_, p2);
  EXPECT_EQ(travik_demuxer_pop(demuxer_), p1);
  EXPECT_EQ(travik_demuxer_pop(demuxer_), p2);
  p1->release(p1);
  p2->release(p2);
}

int released = 0;
void counting_release(travik_packet *p) {
  released++;
  travik_listitem_free_lock(p);
}

TEST_F(Demuxer, ClearPacketsReleasesEveryQueuedPacket) {
  for (int i = 0; i < 3; i++) travik_demuxer_parse(demuxer_, nullptr);
  released = 0;
  for (void *p = demuxer_->packets.first; p; p = travik_listitem_getnext(p))
    static_cast<travik_packet *>(p)->release = counting_release;
  travik_demuxer_clear_packets(demuxer_);
  EXPECT_EQ(released, 3);
  EXPECT_EQ(demuxer_->packets.count, 0);
}

TEST_F(Demuxer, SeekReachesTheDriverInMicroseconds) {
  EXPECT_EQ(travik_demuxer_seek(demuxer_, 1500, 6), 3);
  EXPECT_EQ(fake.seek_position, 1500000);
  EXPECT_EQ(fake.seek_flags, 6);
  travik_demuxer_seek(demuxer_, 2000000000, 0);
  EXPECT_EQ(fake.seek_position, 2000000000000LL);
}

TEST_F(Demuxer, SeekLeavesQueuedPackets) {
  travik_demuxer_parse(demuxer_, nullptr);
  travik_demuxer_seek(demuxer_, 0, 0);
  EXPECT_EQ(demuxer_->packets.count, 1);
}

TEST_F(Demuxer, DriverCallsRunUnderTheLock) {
  travik_demuxer_parseheader(demuxer_);
  EXPECT_EQ(fake.lock_busy_in_header, 1);
  travik_demuxer_control(demuxer_, 1, nullptr);
  EXPECT_EQ(fake.lock_busy_in_control, 1);
}

TEST_F(Demuxer, ParseAndSeekCallTheDriverUnderTheLock) {
  travik_demuxer_parse(demuxer_, nullptr);
  EXPECT_EQ(fake.lock_busy_in_parse, 1);
  travik_demuxer_seek(demuxer_, 10, 0);
  EXPECT_EQ(fake.lock_busy_in_seek, 1);
  EXPECT_EQ(lock_busy(demuxer_), 0);  // released afterwards
}

// Runs `call` in another thread while this one holds the demuxer's lock;
// true when the call had to wait for the lock.
template <typename Call>
bool waits_for_the_lock(travik_demuxer *demuxer, Call call) {
  pthread_mutex_lock(&demuxer->lock);
  std::atomic<bool> done{false};
  std::thread other([&] {
    call();
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const bool waited = !done.load();
  pthread_mutex_unlock(&demuxer->lock);
  other.join();
  return waited && done.load();
}

TEST_F(Demuxer, GetstreamAndGetstreamIdTakeTheLock) {
  travik_stream *s = stream(1, 0, 0, 42);
  travik_demuxer_addstream(demuxer_, s);
  travik_stream *found = nullptr;
  EXPECT_TRUE(waits_for_the_lock(demuxer_, [&] { found = travik_demuxer_getstream(demuxer_, 0); }));
  EXPECT_EQ(found, s);
  found = nullptr;
  EXPECT_TRUE(
      waits_for_the_lock(demuxer_, [&] { found = travik_demuxer_getstream_id(demuxer_, 42); }));
  EXPECT_EQ(found, s);
}

TEST_F(Demuxer, PacketQueueWorksWhileTheDriverIsBusy) {
  // Another thread "inside the driver" holds the demuxer's lock; the packet
  // list has its own lock, so push, pop and clear_packets go on.
  travik_demuxer_allocator *a = demuxer_->allocator;
  travik_packet *p1 = a->alloc(a->user, 4);
  travik_packet *p2 = a->alloc(a->user, 4);
  pthread_mutex_lock(&demuxer_->lock);
  std::atomic<int> step{0};
  travik_packet *popped = nullptr;
  std::thread other([&] {
    travik_demuxer_push(demuxer_, p1);
    travik_demuxer_push(demuxer_, p2);
    popped = travik_demuxer_pop(demuxer_);
    travik_demuxer_clear_packets(demuxer_);
    step = 1;
  });
  const long long limit = travik_test::now_ms() + 10000;
  while (step.load() == 0 && travik_test::now_ms() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const int reached = step.load();
  pthread_mutex_unlock(&demuxer_->lock);
  other.join();
  EXPECT_EQ(reached, 1);
  EXPECT_EQ(popped, p1);
  EXPECT_EQ(demuxer_->packets.count, 0);  // p2 released by clear_packets
  p1->release(p1);
}

TEST_F(Demuxer, ClearPacketsWakesAWaiterOnTheList) {
  travik_demuxer_parse(demuxer_, nullptr);
  std::atomic<bool> waiting{false};
  int wait_result = -1;
  std::thread waiter([&] {
    pthread_mutex_lock(&demuxer_->packets.mutex);
    waiting = true;
    timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 10;
    wait_result = pthread_cond_timedwait(&demuxer_->packets.cond, &demuxer_->packets.mutex, &until);
    pthread_mutex_unlock(&demuxer_->packets.mutex);
  });
  const long long limit = travik_test::now_ms() + 10000;
  while (!waiting.load() && travik_test::now_ms() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  // The waiter holds the list's mutex until it waits, so clearing (which
  // takes that mutex) happens once it is waiting.
  travik_demuxer_clear_packets(demuxer_);
  waiter.join();
  EXPECT_EQ(wait_result, 0);  // signalled, not timed out
  EXPECT_EQ(demuxer_->packets.count, 0);
}

TEST_F(Demuxer, ControlCommandTwoSkipsTheLock) {
  EXPECT_EQ(travik_demuxer_control(demuxer_, 2, &fake), 21);
  EXPECT_EQ(fake.lock_busy_in_control, 0);
}

TEST_F(Demuxer, ControlWithoutADriverControlGivesZero) {
  travik_demuxer_driver plain = drivers[0];
  plain.control = nullptr;
  demuxer_->driver = &plain;
  EXPECT_EQ(travik_demuxer_control(demuxer_, 1, nullptr), 0);
  EXPECT_EQ(travik_demuxer_control(demuxer_, 2, nullptr), 0);
  demuxer_->driver = &drivers[0];
}

TEST_F(Demuxer, AddstreamFillsSlotsInOrder) {
  travik_stream *a = stream(1, 0, 0), *b = stream(2, 0, 0);
  EXPECT_EQ(travik_demuxer_addstream(demuxer_, a), 0);
  EXPECT_EQ(travik_demuxer_addstream(demuxer_, b), 1);
  EXPECT_EQ(a->index, 0);
  EXPECT_EQ(b->index, 1);
  EXPECT_EQ(demuxer_->stream_count, 2);
  EXPECT_EQ(travik_demuxer_getstream(demuxer_, 1), b);
  EXPECT_EQ(travik_demuxer_getstream(demuxer_, 2), nullptr);
  EXPECT_EQ(travik_demuxer_getstream(demuxer_, -1), nullptr);
}

TEST_F(Demuxer, The33rdStreamIsNotStoredButCounted) {
  for (int i = 0; i < 32; i++) ASSERT_EQ(travik_demuxer_addstream(demuxer_, stream(1, 0, 0)), i);
  travik_stream *extra = stream(1, 0, 0, 99);
  EXPECT_EQ(travik_demuxer_addstream(demuxer_, extra), 32);
  EXPECT_EQ(demuxer_->stream_count, 33);
  EXPECT_EQ(travik_demuxer_getstream(demuxer_, 32), nullptr);
  EXPECT_EQ(travik_demuxer_getstream_id(demuxer_, 99), nullptr);
  for (int i = 0; i < 32; i++) EXPECT_NE(demuxer_->streams[i], extra);
}

TEST_F(Demuxer, GetstreamIdFindsTheFirstBySlot) {
  travik_demuxer_addstream(demuxer_, stream(1, 0, 0, 5));
  travik_stream *first7 = stream(2, 0, 0, 7);
  travik_demuxer_addstream(demuxer_, first7);
  travik_demuxer_addstream(demuxer_, stream(1, 0, 0, 7));
  EXPECT_EQ(travik_demuxer_getstream_id(demuxer_, 7), first7);
  EXPECT_EQ(travik_demuxer_getstream_id(demuxer_, 8), nullptr);
}

TEST_F(Demuxer, HasAudioAndHasVideo) {
  EXPECT_EQ(travik_demuxer_hasaudio(demuxer_), 0);
  EXPECT_EQ(travik_demuxer_hasvideo(demuxer_), 0);
  travik_demuxer_addstream(demuxer_, stream(0, 0, 0));
  travik_demuxer_addstream(demuxer_, stream(2, 0, 0));
  EXPECT_EQ(travik_demuxer_hasaudio(demuxer_), 0);
  EXPECT_EQ(travik_demuxer_hasvideo(demuxer_), 1);
  travik_demuxer_addstream(demuxer_, stream(1, 0, 0));
  EXPECT_EQ(travik_demuxer_hasaudio(demuxer_), 1);
}

TEST_F(Demuxer, PrerollSetters) {
  EXPECT_EQ(demuxer_->preroll, 10000);
  EXPECT_EQ(demuxer_->fixed_preroll, 0);
  travik_demuxer_setpreroll(demuxer_, 2500);
  travik_demuxer_setfixedpreroll(demuxer_, 700);
  EXPECT_EQ(demuxer_->preroll, 2500);
  EXPECT_EQ(demuxer_->fixed_preroll, 700);
}

TEST_F(Demuxer, Seekable) {
  EXPECT_EQ(travik_demuxer_seekable(demuxer_), 1);
  demuxer_->seekable = 0;
  EXPECT_EQ(travik_demuxer_seekable(demuxer_), 0);
  demuxer_->seekable = 5;
  demuxer_->flags = TRAVIK_DEMUXER_NOSEEK;
  EXPECT_EQ(travik_demuxer_seekable(demuxer_), 0);
  demuxer_->flags = TRAVIK_DEMUXER_PAUSABLE;
  EXPECT_EQ(travik_demuxer_seekable(demuxer_), 1);
}

TEST_F(Demuxer, DurationFromTheInputLengthAndTheAudioBitRate) {
  travik_test::TempDir dir;
  std::string path = dir.file("a.bin");
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_EQ(::ftruncate(fd, 1600000), 0);
  ::close(fd);
  travik_io *io = travik_io_create(path.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  demuxer_->input = io;
  travik_demuxer_addstream(demuxer_, stream(1, 128000, 0));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 100000u);
  demuxer_->input = input_;
  travik_io_destroy(io);
}

TEST_F(Demuxer, DurationIsComputedOnceAndCached) {
  travik_stream *s = stream(1, 0, 4000);
  travik_demuxer_addstream(demuxer_, s);
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 4000u);
  s->duration = 9000;
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 4000u);
}

TEST_F(Demuxer, UnknownDurationIsComputedAgain) {
  travik_stream *s = stream(1, 0, 0);
  travik_demuxer_addstream(demuxer_, s);
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 0u);
  s->duration = 9000;
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 9000u);
}

TEST_F(Demuxer, DurationTakesTheAudioStreamWithTheHighestBitRate) {
  travik_demuxer_addstream(demuxer_, stream(1, 64000, 1000));
  travik_demuxer_addstream(demuxer_, stream(1, 192000, 2000));
  travik_demuxer_addstream(demuxer_, stream(1, 96000, 3000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 2000u);
}

TEST_F(Demuxer, DurationTieGoesToTheHigherSlot) {
  travik_demuxer_addstream(demuxer_, stream(1, 64000, 1000));
  travik_demuxer_addstream(demuxer_, stream(1, 64000, 2000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 2000u);
}

TEST_F(Demuxer, DurationTakesTheVideoStreamWithTheHighestBitRate) {
  travik_demuxer_addstream(demuxer_, stream(2, 100000, 9000));
  travik_demuxer_addstream(demuxer_, stream(2, 200000, 3000));
  travik_demuxer_addstream(demuxer_, stream(2, 150000, 7000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 3000u);
}

TEST_F(Demuxer, VideoDurationTieGoesToTheHigherSlot) {
  travik_demuxer_addstream(demuxer_, stream(2, 0, 9000));
  travik_demuxer_addstream(demuxer_, stream(2, 0, 2000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 2000u);
}

TEST_F(Demuxer, StoredAudioDurationIsPreferredToTheInputLength) {
  // The input (the fixture's) cannot even be opened: with a stored
  // duration its length is never asked for.
  travik_demuxer_addstream(demuxer_, stream(1, 128000, 4321));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 4321u);
}

TEST_F(Demuxer, DurationKeepsTheLow32Bits) {
  travik_demuxer_addstream(demuxer_, stream(2, 0, 0x100000005LL));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 5u);
}

TEST_F(Demuxer, StreamsOfOtherTypesGiveNoDuration) {
  travik_demuxer_addstream(demuxer_, stream(0, 64000, 8000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 0u);
}

TEST_F(Demuxer, LongerVideoDurationWins) {
  travik_demuxer_addstream(demuxer_, stream(1, 64000, 1000));
  travik_demuxer_addstream(demuxer_, stream(2, 0, 5000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 5000u);
}

TEST_F(Demuxer, ShorterVideoDurationDoesNot) {
  travik_demuxer_addstream(demuxer_, stream(1, 64000, 8000));
  travik_demuxer_addstream(demuxer_, stream(2, 0, 5000));
  EXPECT_EQ(travik_demuxer_getduration(demuxer_), 8000u);
}

TEST_F(Demuxer, TitleComesFromTheFileName) {
  EXPECT_EQ(travik_demuxer_parseheader(demuxer_), 0);
  const char *title = travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE);
  ASSERT_NE(title, nullptr);
  EXPECT_STREQ(title, "Some Movie.final");
}

TEST_F(Demuxer, NameWithoutDotIsKeptWhole) {
  travik_io *io = travik_io_create("dir/README");
  demuxer_->input = io;
  travik_demuxer_parseheader(demuxer_);
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), "README");
  demuxer_->input = input_;
  travik_io_destroy(io);
}

TEST_F(Demuxer, ContainerTitleIsKept) {
  fake.title = "From the container";
  travik_demuxer_parseheader(demuxer_);
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE),
               "From the container");
}

TEST_F(Demuxer, FailedHeaderSetsNoTitle) {
  fake.header_result = 9;
  EXPECT_EQ(travik_demuxer_parseheader(demuxer_), 9);
  EXPECT_EQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), nullptr);
}

TEST_F(Demuxer, NoPathNoTitle) {
  travik_io *io = travik_io_create("tcp://host:80");
  demuxer_->input = io;
  travik_demuxer_parseheader(demuxer_);
  EXPECT_EQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), nullptr);
  demuxer_->input = input_;
  travik_io_destroy(io);
}

// Runs `body` with LANG set to `lang`, restoring it afterwards.
template <typename Body>
void with_lang(const char *lang, Body body) {
  const char *old = std::getenv("LANG");
  std::string saved = old ? old : "";
  setenv("LANG", lang, 1);
  body();
  if (old)
    setenv("LANG", saved.c_str(), 1);
  else
    unsetenv("LANG");
}

TEST_F(Demuxer, TitleIsConvertedToUtf8) {
  TRAVIK_SKIP_WITHOUT_ICONV("ISO-8859-1", "UTF-8");
  travik_io *io = travik_io_create("music/caf\xe9.wav");
  demuxer_->input = io;
  with_lang("fr_FR.ISO-8859-1", [&] { travik_demuxer_parseheader(demuxer_); });
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), "caf\xc3\xa9");
  demuxer_->input = input_;
  travik_io_destroy(io);
}

TEST_F(Demuxer, TitleIsConvertedFromLangNotTravikLang) {
  TRAVIK_SKIP_WITHOUT_ICONV("ISO-8859-1", "UTF-8");
  travik_io *io = travik_io_create("music/caf\xe9.wav");
  demuxer_->input = io;
  setenv("TRAVIK_LANG", "xx_XX.NO-SUCH-CHARSET", 1);
  with_lang("fr_FR.ISO-8859-1", [&] { travik_demuxer_parseheader(demuxer_); });
  unsetenv("TRAVIK_LANG");
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), "caf\xc3\xa9");
  demuxer_->input = input_;
  travik_io_destroy(io);
}

TEST_F(Demuxer, DotInADirectoryNameIsNotAnExtension) {
  travik_io *io = travik_io_create("/media/v1.0/clip");
  demuxer_->input = io;
  travik_demuxer_parseheader(demuxer_);
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), "clip");
  demuxer_->input = input_;
  travik_io_destroy(io);
}

TEST_F(Demuxer, UnconvertibleTitleIsKeptAsItIs) {
  travik_io *io = travik_io_create("music/caf\xe9.wav");
  demuxer_->input = io;
  with_lang("xx_XX.NO-SUCH-CHARSET", [&] { travik_demuxer_parseheader(demuxer_); });
  EXPECT_STREQ(travik_metadata_gettext(&demuxer_->metadata, TRAVIK_META_TITLE), "caf\xe9");
  demuxer_->input = input_;
  travik_io_destroy(io);
}

int allocator_destroys = 0;
void counting_destroy(travik_demuxer_allocator *a) {
  allocator_destroys++;
  std::free(a);
}

TEST_F(Demuxer, DestroyClosesTheDriverAndReleasesEverything) {
  travik_demuxer_allocator *a = travik_demuxer_allocator_create();
  a->destroy = counting_destroy;
  allocator_destroys = 0;
  travik_demuxer *d = make(&drivers[0], a);
  travik_metadata_settext(&d->metadata, 3, "x");
  travik_demuxer_parse(d, nullptr);
  travik_demuxer_parse(d, nullptr);
  released = 0;
  for (void *p = d->packets.first; p; p = travik_listitem_getnext(p))
    static_cast<travik_packet *>(p)->release = counting_release;
  const int32_t closes = fake.closes;
  travik_demuxer_destroy(d);
  EXPECT_EQ(fake.closes, closes + 1);
  EXPECT_EQ(allocator_destroys, 1);
  EXPECT_EQ(released, 2);
  fake.demuxer = demuxer_;
}

TEST(DemuxerCreate, InputWithoutMatchStringGivesNull) {
  // A "mem" URL has no path, so no extension to match.
  travik_io *io = travik_io_create("mem://NULL:16");
  EXPECT_EQ(travik_demuxer_create(io, nullptr), nullptr);
  travik_io_destroy(io);
}

TEST(DemuxerCreate, NoCacheNoDriver) {
  travik_io *io = travik_io_create("/nonexistent/x.wav");
  EXPECT_EQ(travik_demuxer_create(io, nullptr), nullptr);
  travik_io_destroy(io);
}

}  // namespace
