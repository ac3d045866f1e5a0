// The video output front end over application tables ("driver") and over
// the reference plugins found through TRAVIK_PLUGINS_DIR.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <travik/video.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "util/testutil.h"

namespace {

// An application driver that records every call.
struct Recorder {
  std::vector<std::string> calls;
  travik_video *video = nullptr;  // to check the locks from inside calls
  bool fail_open = false;
  int32_t alloc_status = 7;
  int32_t delay = 42;
  int32_t x = 0, y = 0, width = 0, height = 0;
  uint8_t **planes = nullptr;
  int32_t *pitches = nullptr;
  bool lock_held_in_draw = false;
  bool list_lock_free_in_draw = false;
  // Driver calls made while `video` was set, and those of them that found
  // the front end's lock free.
  int guarded_calls = 0;
  int unguarded_calls = 0;
  int32_t filters_at_close = -1;
};

Recorder *recorder = nullptr;

bool locked(pthread_mutex_t *m) {
  if (pthread_mutex_trylock(m) == EBUSY) return true;
  pthread_mutex_unlock(m);
  return false;
}

travik_video_driver table;

// Notes whether the front end's lock is held around this driver call.
void note_lock(void *handle) {
  auto *r = static_cast<Recorder *>(handle);
  if (!r->video) return;
  if (locked(&r->video->lock))
    r->guarded_calls++;
  else
    r->unguarded_calls++;
}

int32_t t_probe(void *, const travik_video_driver *) { return 1; }
void *t_open(void *argument) {
  recorder->calls.push_back(argument == &table ? "open(table)" : "open(other)");
  return recorder->fail_open ? nullptr : recorder;
}
int32_t t_init(void *h, int32_t a, int32_t b, int32_t c) {
  note_lock(h);
  static_cast<Recorder *>(h)->calls.push_back("init " + std::to_string(a) + " " +
                                              std::to_string(b) + " " + std::to_string(c));
  return 0;
}
void t_close(void *h) {
  auto *r = static_cast<Recorder *>(h);
  r->calls.push_back("close");
  if (r->video) r->filters_at_close = r->video->filters.count;
}
int32_t t_alloc(void *h, uint8_t *planes[3], int32_t pitches[3], int32_t w, int32_t hh) {
  note_lock(h);
  auto *r = static_cast<Recorder *>(h);
  r->calls.push_back("alloc " + std::to_string(w) + "x" + std::to_string(hh));
  static uint8_t memory[3][16];
  for (int i = 0; i < 3; i++) {
    planes[i] = memory[i];
    pitches[i] = 16 + i;
  }
  return r->alloc_status;
}
void t_free(void *h, uint8_t *planes[3]) {
  note_lock(h);
  static_cast<Recorder *>(h)->calls.push_back(planes ? "free" : "free(null)");
}
int32_t t_control(void *h, int32_t command, void *value) {
  note_lock(h);
  static_cast<Recorder *>(h)->calls.push_back("control " + std::to_string(command) + " " +
                                              static_cast<const char *>(value));
  return 5;
}
int32_t t_draw(void *h, int32_t x, int32_t y, int32_t w, int32_t hh, uint8_t *planes[3],
               int32_t pitches[3]) {
  auto *r = static_cast<Recorder *>(h);
  r->calls.push_back("draw");
  r->x = x, r->y = y, r->width = w, r->height = hh;
  r->planes = planes;
  r->pitches = pitches;
  if (r->video) {
    r->lock_held_in_draw = locked(&r->video->lock);
    r->list_lock_free_in_draw = !locked(&r->video->filters.mutex);
  }
  return 0;
}
int32_t t_flip(void *h) {
  note_lock(h);
  static_cast<Recorder *>(h)->calls.push_back("flip");
  return 0;
}
int32_t t_getdelay(void *h) {
  note_lock(h);
  static_cast<Recorder *>(h)->calls.push_back("getdelay");
  return static_cast<Recorder *>(h)->delay;
}

class Video : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder = &rec;
    table = {"test", nullptr, t_probe, t_open, t_init, t_close, t_alloc, t_free,
             t_control, t_draw, t_flip, t_getdelay};
  }
  void TearDown() override { recorder = nullptr; }
  Recorder rec;
};

travik_videoframe picture(int32_t w, int32_t h) {
  travik_videoframe f;
  travik_videoframe templ;
  std::memset(&templ, 0, sizeof templ);
  templ.format = TRAVIK_PIXEL_YUV420P;
  templ.width = w;
  templ.height = h;
  templ.timestamp = 40000;
  travik_videoframe_init(&f, &templ);
  return f;
}

TEST_F(Video, CreateWithApplicationTableOpensWithTheTable) {
  travik_video *v = travik_video_create("driver", &table);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->plugin, nullptr);
  EXPECT_EQ(v->driver, &table);
  EXPECT_EQ(v->handle, &rec);
  EXPECT_EQ(rec.calls, (std::vector<std::string>{"open(table)"}));
  travik_video_destroy(v);
  EXPECT_EQ(rec.calls.back(), "close");
}

TEST_F(Video, CreateFailsWhenOpenFails) {
  rec.fail_open = true;
  EXPECT_EQ(travik_video_create("driver", &table), nullptr);
  EXPECT_EQ(rec.calls, (std::vector<std::string>{"open(table)"}));
}

TEST_F(Video, CreateRefusesMissingNameOrTable) {
  EXPECT_EQ(travik_video_create(nullptr, &table), nullptr);
  EXPECT_EQ(travik_video_create("driver", nullptr), nullptr);
}

TEST_F(Video, CallsPassArgumentsAndResultsThrough) {
  travik_video *v = travik_video_create("driver", &table);
  EXPECT_EQ(travik_video_init(v, 320, 240, 1), 0);
  uint8_t *planes[3] = {nullptr, nullptr, nullptr};
  int32_t pitches[3] = {0, 0, 0};
  EXPECT_EQ(travik_video_allocbuffer(v, planes, pitches, 64, 48), 7);
  EXPECT_NE(planes[0], nullptr);
  EXPECT_EQ(pitches[2], 18);
  EXPECT_EQ(travik_video_freebuffer(v, planes), 0);
  EXPECT_EQ(travik_video_flip(v), 0);
  EXPECT_EQ(travik_video_getdelay(v), 42);
  char word[] = "word";
  EXPECT_EQ(travik_video_control(v, 9, word), 0);
  EXPECT_EQ(travik_video_reset(v), 0);
  EXPECT_EQ(rec.calls, (std::vector<std::string>{"open(table)", "init 320 240 1", "alloc 64x48",
                                                  "free", "flip", "getdelay", "control 9 word"}));
  travik_video_destroy(v);
}

TEST_F(Video, EveryDriverCallIsMadeUnderTheLock) {
  travik_video *v = travik_video_create("driver", &table);
  rec.video = v;
  uint8_t *planes[3] = {nullptr, nullptr, nullptr};
  int32_t pitches[3] = {0, 0, 0};
  char word[] = "word";
  travik_video_init(v, 1, 2, 3);
  travik_video_allocbuffer(v, planes, pitches, 16, 16);
  travik_video_freebuffer(v, planes);
  travik_video_control(v, 1, word);
  travik_video_flip(v);
  travik_video_getdelay(v);
  EXPECT_EQ(rec.guarded_calls, 6);
  EXPECT_EQ(rec.unguarded_calls, 0);
  // Each call released the lock again.
  EXPECT_FALSE(locked(&v->lock));
  rec.video = nullptr;
  travik_video_destroy(v);
}

TEST_F(Video, DestroyEmptiesTheFilterListBeforeClosing) {
  travik_video *v = travik_video_create("driver", &table);
  int32_t (*filter)(void *, travik_videoframe *) = [](void *, travik_videoframe *) {
    return int32_t{0};
  };
  travik_video_install_filter(v, filter, nullptr);
  travik_video_install_filter(v, filter, &rec);
  ASSERT_EQ(v->filters.count, 2);
  rec.video = v;
  travik_video_destroy(v);
  EXPECT_EQ(rec.calls.back(), "close");
  EXPECT_EQ(rec.filters_at_close, 0);
}

TEST_F(Video, DrawWithMinusOneUsesTheFrameSize) {
  travik_video *v = travik_video_create("driver", &table);
  travik_videoframe f = picture(176, 144);
  EXPECT_EQ(travik_video_draw(v, 0, 0, -1, -1, &f), 0);
  EXPECT_EQ(rec.width, 176);
  EXPECT_EQ(rec.height, 144);
  EXPECT_EQ(rec.planes, f.planes);
  EXPECT_EQ(rec.pitches, f.pitches);
  travik_video_destroy(v);
}

TEST_F(Video, DrawWithExplicitSizesPassesThem) {
  travik_video *v = travik_video_create("driver", &table);
  travik_videoframe f = picture(176, 144);
  travik_video_draw(v, 3, 4, 100, -1, &f);
  EXPECT_EQ(rec.x, 3);
  EXPECT_EQ(rec.y, 4);
  EXPECT_EQ(rec.width, 100);
  EXPECT_EQ(rec.height, 144);
  travik_video_draw(v, 0, 0, 20, 10, &f);
  EXPECT_EQ(rec.width, 20);
  EXPECT_EQ(rec.height, 10);
  travik_video_destroy(v);
}

TEST_F(Video, DrawHoldsTheFrontEndLockButNotTheListLock) {
  travik_video *v = travik_video_create("driver", &table);
  rec.video = v;
  travik_videoframe f = picture(16, 16);
  travik_video_draw(v, 0, 0, -1, -1, &f);
  EXPECT_TRUE(rec.lock_held_in_draw);
  EXPECT_TRUE(rec.list_lock_free_in_draw);
  travik_video_destroy(v);
}

struct FilterLog {
  std::vector<std::string> *calls;
  travik_video *video;
  bool both_locks = true;
};

int32_t filter_a(void *argument, travik_videoframe *frame) {
  auto *log = static_cast<FilterLog *>(argument);
  log->calls->push_back("A " + std::to_string(frame->timestamp));
  log->both_locks = log->both_locks && locked(&log->video->lock) &&
                    locked(&log->video->filters.mutex);
  frame->tag = 77;  // filters may change the frame
  return 0;
}
int32_t filter_b(void *argument, travik_videoframe *frame) {
  auto *log = static_cast<FilterLog *>(argument);
  log->calls->push_back("B " + std::to_string(frame->tag));
  return 0;
}

TEST_F(Video, FiltersRunInInstallationOrderBeforeTheDraw) {
  travik_video *v = travik_video_create("driver", &table);
  FilterLog log{&rec.calls, v};
  travik_video_install_filter(v, filter_a, &log);
  travik_video_install_filter(v, filter_b, &log);
  travik_videoframe f = picture(16, 16);
  rec.calls.clear();
  travik_video_draw(v, 0, 0, -1, -1, &f);
  EXPECT_EQ(rec.calls, (std::vector<std::string>{"A 40000", "B 77", "draw"}));
  EXPECT_TRUE(log.both_locks);
  travik_video_destroy(v);
}

TEST_F(Video, RemovingAFilterRemovesEveryMatchingEntry) {
  travik_video *v = travik_video_create("driver", &table);
  FilterLog log{&rec.calls, v}, other{&rec.calls, v};
  travik_video_install_filter(v, filter_b, &log);
  travik_video_install_filter(v, filter_a, &other);
  travik_video_install_filter(v, filter_b, &log);
  travik_video_install_filter(v, filter_b, &other);
  travik_video_remove_filter(v, filter_b, &log);
  EXPECT_EQ(v->filters.count, 2);
  travik_videoframe f = picture(16, 16);
  rec.calls.clear();
  travik_video_draw(v, 0, 0, -1, -1, &f);
  EXPECT_EQ(rec.calls, (std::vector<std::string>{"A 40000", "B 77", "draw"}));
  travik_video_destroy(v);
}

TEST_F(Video, NullVideoIsRefused) {
  travik_videoframe f = picture(16, 16);
  EXPECT_NE(travik_video_draw(nullptr, 0, 0, -1, -1, &f), 0);
  EXPECT_NE(travik_video_flip(nullptr), 0);
  EXPECT_EQ(travik_video_getdelay(nullptr), -1);
  travik_video_destroy(nullptr);
  travik_video *v = travik_video_create("driver", &table);
  EXPECT_NE(travik_video_draw(v, 0, 0, -1, -1, nullptr), 0);
  travik_video_destroy(v);
}

int32_t counting_filter(void *argument, travik_videoframe *) {
  static_cast<std::atomic<int> *>(argument)->fetch_add(1);
  return 0;
}

TEST_F(Video, FiltersCanBeInstalledAndRemovedWhileDrawing) {
  travik_video *v = travik_video_create("driver", &table);
  std::atomic<int> runs{0};
  std::atomic<bool> stop{false};
  std::thread drawer([&] {
    travik_videoframe f = picture(16, 16);
    for (int i = 0; i < 2000 && !stop; i++) {
      travik_video_draw(v, 0, 0, -1, -1, &f);
      travik_video_flip(v);
    }
  });
  for (int i = 0; i < 500; i++) {
    travik_video_install_filter(v, counting_filter, &runs);
    travik_video_remove_filter(v, counting_filter, &runs);
  }
  stop = true;
  drawer.join();
  EXPECT_EQ(v->filters.count, 0);
  travik_video_destroy(v);
}

// ----- through the plugin directory

std::string maps() { return travik_test::read_file("/proc/self/maps"); }

// How many distinct reference video-output plugin files are mapped now.
int loaded_videoout_files() {
  const std::string text = maps();
  std::vector<std::string> seen;
  for (size_t at = text.find("libvideoout_"); at != std::string::npos;
       at = text.find("libvideoout_", at + 1)) {
    const std::string file = text.substr(at, text.find('\n', at) - at);
    if (std::find(seen.begin(), seen.end(), file) == seen.end()) seen.push_back(file);
  }
  return static_cast<int>(seen.size());
}

TEST_F(Video, FailedOpenOfAPluginUnloadsIt) {
  const std::string result = travik_test::in_child([] {
    setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
    // The y4m driver's open fails without an output path.
    travik_video *v = travik_video_create("y4m", nullptr);
    std::string seen = v ? "created" : "null";
    seen += maps().find("libvideoout_y4m.so") == std::string::npos ? " unloaded" : " loaded";
    return seen;
  });
  EXPECT_EQ(result, "null unloaded");
}

TEST_F(Video, DestroyUnloadsThePlugin) {
  const std::string result = travik_test::in_child([] {
    setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
    travik_video *v = travik_video_create("null", nullptr);
    if (!v || !v->plugin) return std::string("no plugin");
    std::string seen = maps().find("libvideoout_null.so") == std::string::npos ? "none" : "loaded";
    travik_video_destroy(v);
    seen += maps().find("libvideoout_null.so") == std::string::npos ? " none" : " loaded";
    return seen;
  });
  EXPECT_EQ(result, "loaded none");
}

TEST_F(Video, LoadingKeepsOnlyTheChosenPlugin) {
  const std::string result = travik_test::in_child([] {
    setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
    std::string seen;
    for (const char *name : {"y4m", "auto"}) {
      travik_plugin *p = travik_video_load_driver(name);
      if (!p) return std::string("nothing for ") + name;
      seen += std::to_string(loaded_videoout_files()) + " ";
      travik_plugin_destroy(p);
    }
    seen += std::to_string(loaded_videoout_files());
    return seen;
  });
  EXPECT_EQ(result, "1 1 0");
}

TEST_F(Video, ApplicationTableNeverTouchesThePluginDirectory) {
  const std::string result = travik_test::in_child([] {
    setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
    recorder = new Recorder;
    travik_video *v = travik_video_create("driver", &table);
    std::string seen = maps().find("libvideoout_") == std::string::npos ? "none" : "loaded";
    travik_video_destroy(v);
    travik_plugin *p = travik_video_load_driver("null");
    seen += maps().find("libvideoout_null.so") == std::string::npos ? " none" : " loaded";
    if (p) travik_plugin_destroy(p);
    return seen;
  });
  EXPECT_EQ(result, "none loaded");
}

}  // namespace
