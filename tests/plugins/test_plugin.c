/*
 * One source for all the plugins the plugin manager tests load. Each build
 * of it is configured by compile definitions:
 *   ENTRY            the entry function's name (travik_<kind>_<name>)
 *   KIND_DEMUXER, KIND_DECODER, KIND_SUBTITLE or KIND_FONT: the record layout
 *   REGISTER_KIND    the kind it registers as (default: its own)
 *   NO_REGISTER      the entry function registers nothing
 *   DESCRIPTION, EXTENSIONS / CODEC, SCORE: the first driver (texts unquoted)
 *   DESCRIPTION2, EXTENSIONS2 / CODEC2, SCORE2: an optional second driver
 * The entry function appends its name to the file named by
 * $TRAVIK_TEST_LOAD_LOG, so that tests can tell which plugins were loaded.
 */
#include <stdio.h>
#include <stdlib.h>
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/font.h>
#include <travik/subtitle.h>

#define STR2(...) #__VA_ARGS__
#define STR(...) STR2(__VA_ARGS__)

#ifndef SCORE
#define SCORE 1
#endif
#ifndef SCORE2
#define SCORE2 1
#endif

static void note_load(void) {
  const char *log = getenv("TRAVIK_TEST_LOAD_LOG");
  if (!log) return;
  FILE *file = fopen(log, "a");
  if (!file) return;
  fprintf(file, "%s\n", STR(ENTRY));
  fclose(file);
}

#if defined(KIND_DEMUXER)
#define OWN_KIND TRAVIK_PLUGIN_DEMUXER
static int32_t probe1(struct travik_io *input, int32_t index) {
  (void)input;
  (void)index;
  return SCORE;
}
#ifdef DESCRIPTION2
static int32_t probe2(struct travik_io *input, int32_t index) {
  (void)input;
  (void)index;
  return SCORE2;
}
#endif
static const travik_demuxer_driver drivers[] = {
    {STR(DESCRIPTION), STR(EXTENSIONS), probe1, NULL, NULL, NULL, NULL, NULL, NULL},
#ifdef DESCRIPTION2
    {STR(DESCRIPTION2), STR(EXTENSIONS2), probe2, NULL, NULL, NULL, NULL, NULL, NULL},
#endif
    {NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL}};
#elif defined(KIND_DECODER)
#define OWN_KIND TRAVIK_PLUGIN_DECODER
static const travik_decoder_driver drivers[] = {
    {STR(DESCRIPTION), CODEC, SCORE, NULL, NULL, NULL, NULL},
#ifdef DESCRIPTION2
    {STR(DESCRIPTION2), CODEC2, SCORE2, NULL, NULL, NULL, NULL},
#endif
    {NULL, 0, 0, NULL, NULL, NULL, NULL}};
#elif defined(KIND_SUBTITLE)
#define OWN_KIND TRAVIK_PLUGIN_SUBTITLE
static int32_t probe1(const char *source) {
  (void)source;
  return SCORE;
}
#ifdef DESCRIPTION2
static int32_t probe2(const char *source) {
  (void)source;
  return SCORE2;
}
#endif
static const travik_subtitle_driver drivers[] = {
    {STR(DESCRIPTION), STR(EXTENSIONS), probe1, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL},
#ifdef DESCRIPTION2
    {STR(DESCRIPTION2), STR(EXTENSIONS2), probe2, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL},
#endif
    {NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL}};
#elif defined(KIND_FONT)
#define OWN_KIND TRAVIK_PLUGIN_FONT
static const travik_font_driver drivers[] = {
    {STR(DESCRIPTION), STR(EXTENSIONS), NULL, NULL, NULL, NULL, NULL},
#ifdef DESCRIPTION2
    {STR(DESCRIPTION2), STR(EXTENSIONS2), NULL, NULL, NULL, NULL, NULL},
#endif
    {NULL, NULL, NULL, NULL, NULL, NULL, NULL}};
#else
#error "test plugin without a kind"
#endif

#ifndef REGISTER_KIND
#define REGISTER_KIND OWN_KIND
#endif

TRAVIK_PLUGIN_EXPORT void ENTRY(void) {
  note_load();
#ifndef NO_REGISTER
  travik_plugin_register(REGISTER_KIND, TRAVIK_PLUGIN_VERSION, (void *)drivers);
#else
  (void)drivers;
#endif
}
