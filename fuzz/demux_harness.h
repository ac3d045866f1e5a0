// Drives one demuxer driver over a "mem" input through the demuxer
// framework: header, every packet, a seek chosen from the input, more
// packets. The driver table is handed in directly (the plugin's source is
// compiled into the fuzzer), with the demuxer record set up as
// travik_demuxer_create leaves it after choosing a driver.
#pragma once

#include <travik/demuxer.h>
#include <travik/io.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

inline void fuzz_demuxer(const travik_demuxer_driver *driver, const char *name,
                         const uint8_t *data, size_t size) {
  std::vector<uint8_t> bytes(data, data + size);
  bytes.push_back(0);
  char url[96];
  std::snprintf(url, sizeof url, "mem://%llx:%u/%s",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes.data())),
                static_cast<unsigned>(size), name);
  travik_io *io = travik_io_create(url);
  travik_io_open(io, -1);
  driver->probe(io, 0);
  travik_io_seek(io, 0, 0);

  auto *d = static_cast<travik_demuxer *>(std::calloc(1, sizeof(travik_demuxer)));
  d->input = io;
  d->driver = driver;
  travik_metadata_init(&d->metadata);
  pthread_mutex_init(&d->lock, nullptr);
  travik_list_init(&d->packets);
  d->allocator = travik_demuxer_allocator_create();
  d->state = driver->open(d, 0);
  d->seekable = 1;
  d->preroll = 10000;

  auto drain = [&](int limit) {
    for (int i = 0; i < limit; i++) {
      int32_t status = travik_demuxer_parse(d, nullptr);
      while (travik_packet *p = travik_demuxer_pop(d)) {
        volatile uint8_t sum = 0;
        for (int32_t k = 0; k < p->size; k++) sum = sum + p->data[k];
        p->release(p);
      }
      if (status) break;
    }
  };
  if (travik_demuxer_parseheader(d) == 0) {
    travik_demuxer_getduration(d);
    drain(2000);
    const int32_t position = size >= 4 ? static_cast<int32_t>(data[size - 1] | data[size - 2] << 8 |
                                                              data[size - 3] << 16)
                                       : 0;
    travik_demuxer_seek(d, position, 0);
    drain(50);
    travik_demuxer_seek(d, -position, 0);
    drain(50);
  } else {
    // Parsing and seeking after a refused header must be safe too.
    travik_demuxer_parse(d, nullptr);
    travik_demuxer_seek(d, 1000, 0);
    travik_demuxer_clear_packets(d);
  }
  travik_demuxer_destroy(d);
  travik_io_destroy(io);
}
