/*
 * travik - the plugin manager and library start-up.
 *
 * A plugin is a shared object <plugin dir>/<kind>/lib<name>.so whose entry
 * function travik_<name>() (<name> running up to the file name's first ".")
 * calls travik_plugin_register() with its kind, TRAVIK_PLUGIN_VERSION and a
 * NULL-terminated array of driver records (the record layout of each kind
 * is in its own header). Plugin files are named lib<kind>_<name>.so, so
 * entry functions are travik_<kind>_<name> and never clash across kinds.
 * For each kind with a cache, what every plugin file offers is kept in
 * <base dir>/<kind>.cfg so that start-up need not load every plugin.
 */
#ifndef TRAVIK_PLUGIN_H
#define TRAVIK_PLUGIN_H

#include <travik/common.h>
#include <travik/config.h>

TRAVIK_BEGIN_DECLS

/* Plugin kinds: the subdirectory names "demuxer", "decoder", "audioout",
 * "videoout", "subtitle" and "font", in this order. */
enum {
  TRAVIK_PLUGIN_DEMUXER = 1,
  TRAVIK_PLUGIN_DECODER = 2,
  TRAVIK_PLUGIN_AUDIOOUT = 3,
  TRAVIK_PLUGIN_VIDEOOUT = 4,
  TRAVIK_PLUGIN_SUBTITLE = 5,
  TRAVIK_PLUGIN_FONT = 6
};
#define TRAVIK_PLUGIN_VERSION 1

/* A loaded plugin file. */
typedef struct travik_plugin {
  void *handle;    /* the dynamic loader's handle */
  char *name;      /* the name or path it was created with */
  int32_t kind;    /* kind expected */
  int32_t version; /* interface version expected */
  void *drivers;   /* what the plugin registered, or NULL */
  int32_t refcount;
} travik_plugin;

/* Scores driver `index` of a registered table; above 0 means "can handle". */
typedef int32_t (*travik_plugin_score_fn)(void *drivers, int32_t index, void *user);

/* What a caller gives the manager to choose a driver. */
typedef struct travik_plugin_probe {
  const char *kind_name;  /* subdirectory, such as "demuxer" */
  int32_t kind;
  int32_t version;
  travik_config *config;  /* the kind's cache */
  const char *key;        /* array key to match, such as "Extensions" */
  const char *match;      /* string to find in those values */
  travik_plugin_score_fn score;
  void *user;             /* handed to `score` */
} travik_plugin_probe;

/* Called for each plugin file found; a result of 1 stops that directory. */
typedef int32_t (*travik_plugin_parsedir_fn)(const char *path, void *user);
/* Writes a plugin's keys into its cache section; returns its driver count. */
typedef int32_t (*travik_plugin_describe_fn)(void *drivers, const char *section,
                                             travik_config *config);

TRAVIK_API int travik_plugin_mgr_init(void);
TRAVIK_API int travik_plugin_mgr_destroy(void);

/* Loads a plugin by relative name (user directory first, then the
 * compiled-in one) or by absolute path; NULL on failure. */
TRAVIK_API travik_plugin *travik_plugin_create(const char *name, int32_t kind, int32_t version);
/* For plugins' entry functions: registers the driver table of the plugin
 * being loaded, when kind and version match what the loader expects. */
TRAVIK_API void travik_plugin_register(int32_t kind, int32_t version, void *drivers);
TRAVIK_API void travik_plugin_destroy(travik_plugin *plugin);
/* Calls `callback` for every "*.so*" entry of <dir>/<subdir> in the user
 * directory, then in the compiled-in directory. */
TRAVIK_API void travik_plugin_parsedir(const char *subdir, travik_plugin_parsedir_fn callback,
                                       void *user);
/* Returns the kind's cache, refreshed for plugin files newer than it. */
TRAVIK_API travik_config *travik_plugin_loadconfig(const char *kind_name, int32_t kind,
                                                   int32_t version,
                                                   travik_plugin_describe_fn describe);
/* Chooses the best-scoring driver; returns its table and stores the loaded
 * plugin (now the caller's) and the driver index, or returns NULL. */
TRAVIK_API void *travik_plugin_probeconfig(travik_plugin_probe *probe, travik_plugin **plugin,
                                           int32_t *index);
TRAVIK_API void *travik_plugin_probeconfig_by_section_name(travik_plugin_probe *probe,
                                                           travik_plugin **plugin,
                                                           int32_t *index,
                                                           const char *section);

/* Library start and stop; only the first travik_init() does anything. */
TRAVIK_API void travik_init(void);
TRAVIK_API void travik_destroy(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_PLUGIN_H */
