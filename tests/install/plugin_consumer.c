/* Finds the out-of-tree example plugin through the installed library:
 * travik_init builds the demuxer cache from $TRAVIK_PLUGINS_DIR, and a
 * probe for "clip.EXMP"'s extension loads the plugin and picks its driver. */
#include <stdio.h>
#include <string.h>
#include <travik/travik.h>

static int32_t score(void *drivers, int32_t index, void *user) {
  travik_demuxer_driver *table = drivers;
  return table[index].probe((struct travik_io *)user, index);
}

int main(void) {
  travik_init();
  char path[4200];
  snprintf(path, sizeof path, "%s/demuxer.cfg", travik_basedir());
  travik_config *cache = travik_config_create(path);
  const char *listed = travik_config_read(cache, "libdemuxer_example.so", "Extensions[0]", "");
  travik_plugin_probe probe = {"demuxer", TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION, cache,
                               "Extensions", "EXMP", score, NULL};
  travik_plugin *plugin = NULL;
  int32_t index = -1;
  travik_demuxer_driver *driver = travik_plugin_probeconfig(&probe, &plugin, &index);
  int ok = strcmp(listed, "exmp") == 0 && driver && index == 0 &&
           strcmp(driver[index].description, "Example demuxer") == 0;
  if (driver) {
    void *state = driver[index].open(NULL, index);
    struct travik_packet *packet = (struct travik_packet *)&ok;
    ok = ok && driver[index].parseheader(state) == 0 && driver[index].parse(state, &packet) == 1 &&
         packet == NULL;
    driver[index].close(state);
    travik_plugin_destroy(plugin);
  }
  travik_config_destroy(cache);
  travik_destroy();
  printf("plugin consumer: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
