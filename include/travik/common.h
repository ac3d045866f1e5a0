/*
 * travik - common definitions shared by every public header.
 */
#ifndef TRAVIK_COMMON_H
#define TRAVIK_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TRAVIK_BEGIN_DECLS extern "C" {
#define TRAVIK_END_DECLS }
#else
#define TRAVIK_BEGIN_DECLS
#define TRAVIK_END_DECLS
#endif

/* Marks what the shared library exports; everything else is hidden. */
#define TRAVIK_API __attribute__((visibility("default")))

/* Marks a plugin's entry function, the only symbol a plugin exports. */
#ifdef __cplusplus
#define TRAVIK_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define TRAVIK_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

#endif /* TRAVIK_COMMON_H */
