/*
 * The script's memory limit, and doing without it. Sizes are bytes.
 *
 * What we do at a moment when the script has used up its memory must not end in a fatal error of
 * the script. Such work stands between kaq_memory_limit_lift() and kaq_memory_limit_restore(), and
 * in between the engine's allocator has no limit. These sections nest: the limit is off until the
 * outermost of them has ended. Each thread has a limit and a count of open sections of its own; a
 * section is ended on the thread that began it.
 *
 * A bailout out of a section leaves it open, and the limit off. Whoever ends the bailout closes it
 * with kaq_memory_limit_unwind(): a call that lets the script go on, to the count that it found;
 * request end, and request start for a request that had no end, to 0. So a request begins and ends
 * with no open section and the limit in force.
 *
 * Called by whatever allocates from the engine when memory may be short: the handshake, records of
 * errors and exceptions, call stacks, what is told of curl transfers, and request end as a whole.
 */
#pragma once

#include <stddef.h>

void kaq_memory_limit_lift(void);

/* REQUIRES: an open section. When the outermost one ends, the limit is in force again: what the
 * script has set, or if more is in use and the engine refuses that, what is in use. */
void kaq_memory_limit_restore(void);

/* Private to the function below and to memory_limit.cpp. */
extern __thread int kaq_open_memory_sections
	__attribute__((tls_model("initial-exec"), visibility("hidden")));

/* How many sections of this thread are open. */
static inline int kaq_memory_limit_sections(void) {
	return kaq_open_memory_sections;
}

/* Ends all open sections but the first `sections`. */
void kaq_memory_limit_unwind(int sections);

/* Whether so many bytes can be had from the engine's allocator below the script's limit, however
 * its free memory is cut up. */
bool kaq_memory_has_room(size_t size);
