// Loading and unloading plugin files, registration of their driver tables,
// and the scan of the plugin directories.
#include <travik/plugin.h>
#include <travik/system.h>

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Held from the moment a record becomes the one being created until its
// entry function has returned, so that travik_plugin_register (which reads
// `creating` without locking) always sees the plugin whose entry runs.
pthread_mutex_t manager_lock = PTHREAD_MUTEX_INITIALIZER;
travik_plugin *creating = nullptr;

std::string join(const char *directory, const char *name) {
  std::string path(directory);
  path += '/';
  path += name;
  return path;
}

const char *base_name(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

char *copy_string(const char *text) {
  size_t length = std::strlen(text) + 1;
  char *copy = static_cast<char *>(std::malloc(length));
  std::memcpy(copy, text, length);
  return copy;
}

// Opens `name`: a relative name from the user's plugin directory, else from
// the compiled-in one; an absolute path as it is. Only the last failure is
// reported.
void *open_object(const char *name) {
  constexpr int kFlags = RTLD_LAZY | RTLD_GLOBAL;
  void *handle = nullptr;
  if (name[0] != '/') {
    handle = dlopen(join(travik_plugindir(1), name).c_str(), kFlags);
    if (!handle) handle = dlopen(join(travik_plugindir(0), name).c_str(), kFlags);
  } else {
    handle = dlopen(name, kFlags);
  }
  if (!handle) {
    const char *error = dlerror();
    travik_warning("Can't open plugin : %s, %s\n", name, error ? error : "");
  }
  return handle;
}

// The entry function of lib<stem>.so[...] is travik_<stem>, where the stem
// runs from after "lib" to the first ".". Null when the file name does not
// start with "lib" or the symbol is missing.
void *find_entry(void *handle, const char *name) {
  const char *base = base_name(name);
  if (std::strncmp(base, "lib", 3) != 0) return nullptr;
  const char *stem = base + 3;
  std::string symbol = "travik_";
  symbol.append(stem, std::strcspn(stem, "."));
  return dlsym(handle, symbol.c_str());
}

}  // namespace

extern "C" {

int travik_plugin_mgr_init(void) { return 0; }

int travik_plugin_mgr_destroy(void) { return 0; }

travik_plugin *travik_plugin_create(const char *name, int32_t kind, int32_t version) {
  if (!name) return nullptr;
  auto *plugin = static_cast<travik_plugin *>(std::calloc(1, sizeof(travik_plugin)));
  plugin->kind = kind;
  plugin->version = version;
  plugin->refcount = 1;

  pthread_mutex_lock(&manager_lock);
  creating = plugin;
  void *handle = open_object(name);
  void *entry = handle ? find_entry(handle, name) : nullptr;
  if (!entry) {
    if (handle) dlclose(handle);
    creating = nullptr;
    pthread_mutex_unlock(&manager_lock);
    std::free(plugin);
    return nullptr;
  }
  plugin->handle = handle;
  // The entry function's result carries no meaning; what counts is whether
  // it registered a table.
  reinterpret_cast<void (*)(void)>(entry)();
  creating = nullptr;
  pthread_mutex_unlock(&manager_lock);
  plugin->name = copy_string(name);
  return plugin;
}

void travik_plugin_register(int32_t kind, int32_t version, void *drivers) {
  travik_plugin *plugin = creating;
  if (plugin && plugin->kind == kind && plugin->version == version) plugin->drivers = drivers;
}

void travik_plugin_destroy(travik_plugin *plugin) {
  if (!plugin) return;
  pthread_mutex_lock(&manager_lock);
  if (--plugin->refcount == 0) {
    std::free(plugin->name);
    if (plugin->handle) dlclose(plugin->handle);
    std::free(plugin);
  }
  pthread_mutex_unlock(&manager_lock);
}

void travik_plugin_parsedir(const char *subdir, travik_plugin_parsedir_fn callback, void *user) {
  if (!subdir || !callback) return;
  for (int32_t user_dir = 1; user_dir >= 0; --user_dir) {
    std::string directory = join(travik_plugindir(user_dir), subdir);
    DIR *listing = opendir(directory.c_str());
    if (!listing) continue;
    while (struct dirent *entry = readdir(listing)) {
      if (!std::strstr(entry->d_name, ".so")) continue;
      if (callback(join(directory.c_str(), entry->d_name).c_str(), user) == 1) break;
    }
    closedir(listing);
  }
}

}  // extern "C"
