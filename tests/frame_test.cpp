#include <gtest/gtest.h>
#include <travik/frame.h>
#include <travik/metadata.h>

#include <cstring>

namespace {

travik_videoframe video_template(int32_t format, int32_t width, int32_t height) {
  travik_videoframe t;
  std::memset(&t, 0, sizeof t);
  t.timestamp = 123456;
  t.info = 1;
  t.format = format;
  t.width = width;
  t.height = height;
  return t;
}

TEST(VideoFrame, InitWithoutTemplate) {
  travik_videoframe f;
  std::memset(&f, 0x5A, sizeof f);
  travik_videoframe_init(&f, nullptr);
  EXPECT_EQ(f.kind, TRAVIK_FRAME_VIDEO);
  EXPECT_EQ(f.reserved, 0x5A5A5A5Au);  // left as it was
  EXPECT_EQ(f.timestamp, -1);
  EXPECT_EQ(f.info, 0u);
  EXPECT_EQ(f.format, 0);
  EXPECT_EQ(f.width, 0);
  EXPECT_EQ(f.height, 0);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(f.planes[i], nullptr);
    EXPECT_EQ(f.pitches[i], 0);
  }
  EXPECT_EQ(f.refcount, 1);
  EXPECT_EQ(f.addref, travik_videoframe_addref);
  EXPECT_EQ(f.release, nullptr);
  EXPECT_EQ(f.tag, -1);
}

TEST(VideoFrame, InitCopiesTheTemplate) {
  travik_videoframe t = video_template(TRAVIK_PIXEL_RGB32, 64, 48);
  travik_videoframe f;
  travik_videoframe_init(&f, &t);
  EXPECT_EQ(f.timestamp, 123456);
  EXPECT_EQ(f.info, 1u);
  EXPECT_EQ(f.format, TRAVIK_PIXEL_RGB32);
  EXPECT_EQ(f.width, 64);
  EXPECT_EQ(f.height, 48);
  EXPECT_EQ(f.planes[0], nullptr);
}

TEST(VideoFrame, Yuv420LayoutRoundsTheLumaAreaTo32Bytes) {
  travik_videoframe t = video_template(TRAVIK_PIXEL_YUV420P, 100, 3);
  travik_videoframe *f = travik_videoframe_alloc(&t);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->pitches[0], 106);  // 320 / 3
  EXPECT_EQ(f->pitches[1], 53);   // 320 / 6
  EXPECT_EQ(f->pitches[2], 53);
  EXPECT_EQ(f->planes[0], reinterpret_cast<uint8_t *>(f + 1));
  EXPECT_EQ(f->planes[2] - f->planes[0], 320);
  EXPECT_EQ(f->planes[1] - f->planes[0], 400);
  EXPECT_EQ(f->release, travik_videoframe_release);
  // The whole block is usable: write every plane's last byte.
  f->planes[0][319] = 1;
  f->planes[2][79] = 2;
  f->planes[1][79] = 3;
  EXPECT_EQ(f->release(f), 0);
}

TEST(VideoFrame, PackedFormats) {
  travik_videoframe t32 = video_template(TRAVIK_PIXEL_RGB32, 10, 4);
  travik_videoframe *f = travik_videoframe_alloc(&t32);
  EXPECT_EQ(f->pitches[0], 40);
  EXPECT_EQ(f->planes[1], nullptr);
  EXPECT_EQ(f->planes[2], nullptr);
  EXPECT_EQ(f->pitches[1], 0);
  f->planes[0][159] = 1;
  f->release(f);

  travik_videoframe t5 = video_template(TRAVIK_PIXEL_ARGB32, 3, 3);
  f = travik_videoframe_alloc(&t5);
  EXPECT_EQ(f->pitches[0], 12);
  f->release(f);

  for (int32_t format : {TRAVIK_PIXEL_RGB565, TRAVIK_PIXEL_RGB555}) {
    travik_videoframe t16 = video_template(format, 10, 4);
    f = travik_videoframe_alloc(&t16);
    EXPECT_EQ(f->pitches[0], 20);
    f->planes[0][79] = 1;
    f->release(f);
  }
}

TEST(VideoFrame, FormatsWithoutStorage) {
  for (int32_t format : {0, 2, 4, 8, 9}) {
    travik_videoframe t = video_template(format, 16, 16);
    travik_videoframe *f = travik_videoframe_alloc(&t);
    EXPECT_EQ(f->format, format);
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(f->planes[i], nullptr);
      EXPECT_EQ(f->pitches[i], 0);
    }
    EXPECT_EQ(f->refcount, 1);
    EXPECT_EQ(f->release, travik_videoframe_release);
    EXPECT_EQ(f->release(f), 0);  // frees the record
  }
}

TEST(VideoFrame, EmptyPictureHasNoPitch) {
  travik_videoframe t = video_template(TRAVIK_PIXEL_YUV420P, 16, 0);
  travik_videoframe *f = travik_videoframe_alloc(&t);
  EXPECT_EQ(f->pitches[0], 0);
  EXPECT_EQ(f->pitches[1], 0);
  f->release(f);
}

TEST(VideoFrame, ReferenceCounting) {
  travik_videoframe t = video_template(TRAVIK_PIXEL_RGB565, 2, 2);
  travik_videoframe *f = travik_videoframe_alloc(&t);
  EXPECT_EQ(f->addref(f), 2);
  EXPECT_EQ(f->addref(f), 3);
  EXPECT_EQ(f->release(f), 2);
  EXPECT_EQ(f->release(f), 1);
  EXPECT_EQ(f->release(f), 0);
}

TEST(AudioFrame, InitWithAndWithoutTemplate) {
  travik_audioframe f;
  std::memset(&f, 0x5A, sizeof f);
  travik_audioframe_init(&f, nullptr);
  EXPECT_EQ(f.kind, TRAVIK_FRAME_AUDIO);
  EXPECT_EQ(f.timestamp, -1);
  EXPECT_EQ(f.samples, nullptr);
  EXPECT_EQ(f.count, 0);
  EXPECT_EQ(f.refcount, 1);
  EXPECT_EQ(f.addref, travik_audioframe_addref);
  EXPECT_EQ(f.release, nullptr);
  EXPECT_EQ(f.tag, -1);

  travik_audioframe t;
  travik_audioframe_init(&t, nullptr);
  t.timestamp = 5000000;
  t.count = 1024;
  travik_audioframe g;
  travik_audioframe_init(&g, &t);
  EXPECT_EQ(g.timestamp, 5000000);
  EXPECT_EQ(g.count, 1024);
}

TEST(AudioFrame, AllocPutsTheSamplesBehindTheRecord) {
  travik_audioframe t;
  travik_audioframe_init(&t, nullptr);
  t.count = 1000;
  travik_audioframe *f = travik_audioframe_alloc(&t);
  EXPECT_EQ(f->samples, reinterpret_cast<int16_t *>(f + 1));
  EXPECT_EQ(f->count, 1000);
  f->samples[999] = -1;
  EXPECT_EQ(f->release, travik_audioframe_release);
  EXPECT_EQ(f->addref(f), 2);
  EXPECT_EQ(f->release(f), 1);
  EXPECT_EQ(f->release(f), 0);
}

TEST(Metadata, InitClearsEverySlot) {
  travik_metadata m;
  std::memset(&m, 0x5A, sizeof m);
  travik_metadata_init(&m);
  for (int i = 0; i < TRAVIK_META_SLOTS; i++) {
    EXPECT_EQ(m.slots[i], nullptr);
    EXPECT_EQ(m.capacities[i], 0);
    EXPECT_EQ(travik_metadata_gettext(&m, i), nullptr);
  }
  travik_metadata_destroy(&m);
}

TEST(Metadata, Text) {
  travik_metadata m;
  travik_metadata_init(&m);
  travik_metadata_settext(&m, TRAVIK_META_TITLE, "A title");
  EXPECT_STREQ(travik_metadata_gettext(&m, 0), "A title");
  EXPECT_EQ(m.capacities[0], 8);
  travik_metadata_settext(&m, 0, "B");
  EXPECT_STREQ(travik_metadata_gettext(&m, 0), "B");
  EXPECT_EQ(m.capacities[0], 8);  // never shrinks
  travik_metadata_settext(&m, 0, "A longer title");
  EXPECT_STREQ(travik_metadata_gettext(&m, 0), "A longer title");
  EXPECT_EQ(m.capacities[0], 15);
  travik_metadata_destroy(&m);
}

TEST(Metadata, BadKeysAndNullTextChangeNothing) {
  travik_metadata m;
  travik_metadata_init(&m);
  travik_metadata_settext(&m, 14, "x");
  travik_metadata_settext(&m, 3, nullptr);
  for (int i = 0; i < TRAVIK_META_SLOTS; i++) EXPECT_EQ(m.slots[i], nullptr);
  EXPECT_EQ(travik_metadata_gettext(&m, 14), nullptr);
  EXPECT_EQ(travik_metadata_setdata(&m, 14, "x", 1), nullptr);
  void *data = reinterpret_cast<void *>(1);
  int32_t size = 9;
  EXPECT_EQ(travik_metadata_getdata(&m, 20, &data, &size), 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 0);
  travik_metadata_destroy(&m);
}

TEST(Metadata, NegativeKeysAreRefusedLikeKeysPastTheTable) {
  travik_metadata m;
  travik_metadata_init(&m);
  travik_metadata_settext(&m, -1, "x");
  EXPECT_EQ(travik_metadata_gettext(&m, -1), nullptr);
  EXPECT_EQ(travik_metadata_setdata(&m, -14, "x", 1), nullptr);
  void *data = reinterpret_cast<void *>(1);
  int32_t size = 9;
  EXPECT_EQ(travik_metadata_getdata(&m, -1, &data, &size), 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 0);
  for (int i = 0; i < TRAVIK_META_SLOTS; i++) {
    EXPECT_EQ(m.slots[i], nullptr);
    EXPECT_EQ(m.capacities[i], 0);
  }
  travik_metadata_destroy(&m);
}

TEST(Metadata, NullTextLeavesASetSlotAlone) {
  travik_metadata m;
  travik_metadata_init(&m);
  travik_metadata_settext(&m, 5, "kept");
  void *before = m.slots[5];
  travik_metadata_settext(&m, 5, nullptr);
  EXPECT_EQ(m.slots[5], before);
  EXPECT_STREQ(travik_metadata_gettext(&m, 5), "kept");
  EXPECT_EQ(m.capacities[5], 5);
  travik_metadata_destroy(&m);
}

TEST(Metadata, DestroyLeavesTheSlotPointersAsTheyWere) {
  travik_metadata m;
  travik_metadata_init(&m);
  travik_metadata_settext(&m, 2, "a");
  travik_metadata_setdata(&m, 11, "bc", 2);
  void *text = m.slots[2];
  void *data = m.slots[11];
  travik_metadata_destroy(&m);
  // The buffers are freed but the store itself is not cleared: only the
  // pointer values are compared here, never followed.
  EXPECT_EQ(m.slots[2], text);
  EXPECT_EQ(m.slots[11], data);
  EXPECT_EQ(m.capacities[2], 2);
  EXPECT_EQ(m.capacities[11], 2);
}

TEST(Metadata, DataReportsTheLargestCapacity) {
  travik_metadata m;
  travik_metadata_init(&m);
  std::string big(1000, 'x');
  void *slot = travik_metadata_setdata(&m, TRAVIK_META_IMAGE, big.data(), 1000);
  EXPECT_NE(slot, nullptr);
  void *again = travik_metadata_setdata(&m, TRAVIK_META_IMAGE, "0123456789", 10);
  EXPECT_EQ(again, slot);  // the buffer is kept
  void *data = nullptr;
  int32_t size = 0;
  EXPECT_EQ(travik_metadata_getdata(&m, TRAVIK_META_IMAGE, &data, &size), 1);
  EXPECT_EQ(data, slot);
  EXPECT_EQ(size, 1000);
  EXPECT_EQ(std::memcmp(data, "0123456789xxx", 13), 0);
  travik_metadata_destroy(&m);
}

TEST(Metadata, UnsetSlotData) {
  travik_metadata m;
  travik_metadata_init(&m);
  void *data = reinterpret_cast<void *>(1);
  int32_t size = 5;
  EXPECT_EQ(travik_metadata_getdata(&m, 11, &data, &size), 1);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 0);
  travik_metadata_destroy(&m);
}

}  // namespace
