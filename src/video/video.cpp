// The video output front end: driver choice, locked driver calls, filters.
#include <travik/video.h>

#include <cstdlib>
#include <cstring>

namespace {

struct FilterEntry {
  travik_video_filter_fn function;
  void *argument;
};

struct Search {
  const char *name;
  bool automatic;
  travik_plugin *best;
  int32_t score;
};

// One plugin file of the "videoout" directories.
int32_t consider_candidate(const char *path, void *user) {
  auto *search = static_cast<Search *>(user);
  travik_plugin *plugin = travik_plugin_create(path, TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION);
  if (!plugin) return 0;
  // Once a named driver has been found every later candidate goes.
  if (!search->automatic && search->score == 100) {
    travik_plugin_destroy(plugin);
    return 1;
  }
  auto *table = static_cast<travik_video_driver *>(plugin->drivers);
  if (!table || !table->name) {
    travik_plugin_destroy(plugin);
    return 0;
  }
  if (search->automatic) {
    const int32_t score = table->probe ? table->probe(nullptr, table) : 0;
    if (score > search->score) {
      if (search->best) travik_plugin_destroy(search->best);
      search->best = plugin;
      search->score = score;
    } else {
      travik_plugin_destroy(plugin);
    }
    return 0;
  }
  if (std::strcmp(table->name, search->name) == 0) {
    search->best = plugin;
    search->score = 100;
    return 1;
  }
  travik_plugin_destroy(plugin);
  return 0;
}

}  // namespace

extern "C" {

travik_plugin *travik_video_load_driver(const char *name) {
  if (!name) return nullptr;
  Search search{name, std::strcmp(name, "auto") == 0, nullptr, 0};
  travik_plugin_parsedir("videoout", consider_candidate, &search);
  return search.best;
}

travik_video *travik_video_create(const char *name, void *argument) {
  if (!name) return nullptr;
  travik_plugin *plugin = nullptr;
  travik_video_driver *driver;
  if (std::strcmp(name, "driver") == 0) {
    driver = static_cast<travik_video_driver *>(argument);
  } else {
    plugin = travik_video_load_driver(name);
    if (!plugin) return nullptr;
    driver = static_cast<travik_video_driver *>(plugin->drivers);
  }
  void *handle = driver && driver->open ? driver->open(argument) : nullptr;
  if (!handle) {
    if (plugin) travik_plugin_destroy(plugin);
    return nullptr;
  }
  auto *video = static_cast<travik_video *>(std::calloc(1, sizeof(travik_video)));
  video->plugin = plugin;
  video->driver = driver;
  video->handle = handle;
  travik_list_init(&video->filters);
  pthread_mutex_init(&video->lock, nullptr);
  return video;
}

void travik_video_destroy(travik_video *video) {
  if (!video) return;
  travik_list_destroy(&video->filters);
  video->driver->close(video->handle);
  if (video->plugin) travik_plugin_destroy(video->plugin);
  pthread_mutex_destroy(&video->lock);
  std::free(video);
}

int travik_video_init(travik_video *video, int32_t a, int32_t b, int32_t c) {
  if (!video) return 1;
  pthread_mutex_lock(&video->lock);
  video->driver->init(video->handle, a, b, c);
  pthread_mutex_unlock(&video->lock);
  return 0;
}

int32_t travik_video_allocbuffer(travik_video *video, uint8_t *planes[3], int32_t pitches[3],
                                 int32_t width, int32_t height) {
  if (!video) return -1;
  pthread_mutex_lock(&video->lock);
  const int32_t status = video->driver->allocbuffer(video->handle, planes, pitches, width, height);
  pthread_mutex_unlock(&video->lock);
  return status;
}

int travik_video_freebuffer(travik_video *video, uint8_t *planes[3]) {
  if (!video) return 1;
  pthread_mutex_lock(&video->lock);
  video->driver->freebuffer(video->handle, planes);
  pthread_mutex_unlock(&video->lock);
  return 0;
}

int travik_video_flip(travik_video *video) {
  if (!video) return 1;
  pthread_mutex_lock(&video->lock);
  video->driver->flip(video->handle);
  pthread_mutex_unlock(&video->lock);
  return 0;
}

int32_t travik_video_getdelay(travik_video *video) {
  if (!video) return -1;
  pthread_mutex_lock(&video->lock);
  const int32_t delay = video->driver->getdelay(video->handle);
  pthread_mutex_unlock(&video->lock);
  return delay;
}

int travik_video_control(travik_video *video, int32_t command, void *value) {
  if (!video) return 1;
  pthread_mutex_lock(&video->lock);
  video->driver->control(video->handle, command, value);
  pthread_mutex_unlock(&video->lock);
  return 0;
}

int travik_video_reset(travik_video *) { return 0; }

int travik_video_draw(travik_video *video, int32_t x, int32_t y, int32_t width, int32_t height,
                      travik_videoframe *frame) {
  if (!video || !frame) return 1;
  if (width == -1) width = frame->width;
  if (height == -1) height = frame->height;
  pthread_mutex_lock(&video->lock);
  pthread_mutex_lock(&video->filters.mutex);
  for (void *item = video->filters.first; item; item = travik_listitem_getnext(item)) {
    auto *entry = static_cast<FilterEntry *>(item);
    entry->function(entry->argument, frame);
  }
  pthread_mutex_unlock(&video->filters.mutex);
  video->driver->draw(video->handle, x, y, width, height, frame->planes, frame->pitches);
  pthread_mutex_unlock(&video->lock);
  return 0;
}

int travik_video_install_filter(travik_video *video, travik_video_filter_fn function,
                                void *argument) {
  if (!video) return 1;
  auto *entry = static_cast<FilterEntry *>(travik_listitem_alloc(sizeof(FilterEntry)));
  entry->function = function;
  entry->argument = argument;
  travik_list_append_lock(&video->filters, entry);
  return 0;
}

int travik_video_remove_filter(travik_video *video, travik_video_filter_fn function,
                               void *argument) {
  if (!video) return 1;
  pthread_mutex_lock(&video->filters.mutex);
  void *item = video->filters.first;
  while (item) {
    void *next = travik_listitem_getnext(item);
    auto *entry = static_cast<FilterEntry *>(item);
    if (entry->function == function && entry->argument == argument) travik_listitem_free(item);
    item = next;
  }
  pthread_mutex_unlock(&video->filters.mutex);
  return 0;
}

}  // extern "C"
