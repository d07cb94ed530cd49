/*
 * Text helpers without engine types.
 *
 * All texts are NUL-terminated bytes without a declared encoding. Case is folded for the letters A
 * to Z only, whatever the locale of the process. Any thread may call any of these at any time.
 */
#pragma once

#include <stddef.h>

/*
 * Index of the first occurrence of `needle` in `text` regardless of case, or -1. An empty needle is
 * found at 0, even in an empty text. A null argument gives -1. Interface: kept for callers outside.
 */
int strcaseidx(const char *text, const char *needle);

/*
 * The same within the first `length` bytes of `text`, which need not be NUL-terminated: the whole
 * occurrence lies below `length`, and NUL bytes before it are passed over.
 * Unlike strcaseidx, an empty needle gives -1; so does a needle longer than `length`.
 *
 * REQUIRES: `length` bytes of `text` are readable, and length <= INT_MAX.
 */
int strncaseidx(const char *text, const char *needle, size_t length);

/*
 * New heap copy of the characters `start` up to but not including `end`, shorter if the text ends
 * earlier (a start beyond its end gives an empty text). Null when start or end is negative, end
 * lies before start, text is null, or memory is short. The caller frees. Interface: kept for
 * callers outside.
 */
char *substr(const char *text, int start, int end);

/* New heap copy of `text`, null for null and when memory is short. The caller frees. */
char *kaq_strdup(const char *text);

/*
 * Copies `src` into the `capacity` bytes at `dst`, cut to capacity - 1 bytes and always
 * terminated. A null `src` counts as empty. A capacity of 0 or a null `dst` does nothing.
 *
 * REQUIRES: the ranges do not overlap.
 */
void kaq_copy_bounded(char *dst, size_t capacity, const char *src);
