/* One question to the status port of the collector, and its answer. */
#pragma once

#include "json/json_bounds.h"

#include <stddef.h>

/* An answer that is longer than this many bytes counts as empty: it would not be decoded. */
#define KAQ_ANSWER_MAX KAQ_DECODE_MAX_LENGTH

/* Signature of realloc. */
typedef void *(*kaq_grow_fn)(void *block, size_t size);

/*
 * Connects, writes `request_len` bytes of `request`, and reads until the collector closes the
 * connection. The answer is a new NUL-terminated heap text that the caller frees. It is empty for
 * every failure: no connection, no write, a read error, more than KAQ_ANSWER_MAX bytes, or an
 * answer that is not complete within KAQ_ANSWER_TIMEOUT_MS. Null only when memory is short.
 */
char *kaq_exchange(const char *address, int port, const char *request, size_t request_len);

/*
 * The reading part: everything that comes from the socket `fd` until its peer closes it, with the
 * results described above for answers of up to `limit` bytes. `grow` enlarges the block, which is
 * on the process heap; when it returns null the block is freed and the result is null. Does not
 * close `fd`.
 */
char *kaq_read_answer(int fd, size_t limit, kaq_grow_fn grow);
