/*
 * travik - metadata store: 14 numbered slots of owned text or binary values.
 *
 * Slot 0 is the title, 11 an embedded picture's bytes and 12 a text
 * describing that picture; the others are agreed between demuxer plugins
 * and applications. A slot's buffer never shrinks, so the size reported for
 * binary data is that of the largest value ever stored in the slot.
 */
#ifndef TRAVIK_METADATA_H
#define TRAVIK_METADATA_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

enum {
  TRAVIK_META_TITLE = 0,
  TRAVIK_META_IMAGE = 11,
  TRAVIK_META_IMAGE_INFO = 12,
  TRAVIK_META_SLOTS = 14
};

typedef struct travik_metadata {
  void *slots[TRAVIK_META_SLOTS];         /* owned buffers, NULL when unset */
  int32_t capacities[TRAVIK_META_SLOTS];  /* bytes held by each buffer */
} travik_metadata;

TRAVIK_API void travik_metadata_init(travik_metadata *meta);
/* Frees every slot's buffer; neither clears the slots nor frees `meta`. */
TRAVIK_API void travik_metadata_destroy(travik_metadata *meta);
TRAVIK_API void travik_metadata_settext(travik_metadata *meta, int32_t key, const char *text);
TRAVIK_API const char *travik_metadata_gettext(travik_metadata *meta, int32_t key);
TRAVIK_API void *travik_metadata_setdata(travik_metadata *meta, int32_t key, const void *data,
                                         int32_t size);
/* Stores the slot's buffer and capacity; 1, or 0 (both zeroed) for a bad key. */
TRAVIK_API int travik_metadata_getdata(travik_metadata *meta, int32_t key, void **data,
                                       int32_t *size);

TRAVIK_END_DECLS

#endif /* TRAVIK_METADATA_H */
