/*
 * Random lowercase hexadecimal characters: the only source of trace and span identifiers.
 *
 * The bytes come from the system's getrandom(); where that is missing, forbidden or not ready, from
 * /dev/urandom, opened anew for each call. Where that cannot be read in full either, a
 * deterministic generator seeded from clock, thread and process replaces all of them, so an
 * identifier always comes out. No state between calls; any thread. A caller that needs many
 * identifiers asks once for all their characters and cuts the text into pieces.
 *
 * Identifiers have to be unique, not secret: a call for more than KAQ_RANDOM_MOST_BYTES takes 32
 * bytes from there and expands them, at a fraction of the cost.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* The identifiers of 32 spans: the system takes 20 ns for each. */
#define KAQ_RANDOM_MOST_BYTES 256

/* Signature of getrandom. */
typedef ssize_t (*kaq_getrandom_fn)(void *bytes, size_t n, unsigned flags);

/*
 * Clears the length + 1 bytes at `buffer`, then fills them as kaq_random_hex_logic does.
 * Does nothing when buffer is null or length negative.
 *
 * REQUIRES: buffer has length + 1 bytes.
 */
void kaq_random_hex(int64_t length, char *buffer);

/*
 * Writes exactly `length` characters of 0123456789abcdef and a NUL. Does nothing when buffer is
 * null, length is below 1, or memory for the random bytes is short.
 *
 * REQUIRES: buffer has length + 1 bytes.
 */
void kaq_random_hex_logic(int64_t length, char *buffer);

/* kaq_random_hex_logic with the random bytes from `system`, unless it is null, or from the file
 * `device`. */
void kaq_random_hex_from(kaq_getrandom_fn system, const char *device, int64_t length, char *buffer);

/*
 * Seed of the replacement generator: real-time clock in seconds and nanoseconds, kernel thread id
 * and process id. The process id is widened as a signed value. Never 0.
 */
uint64_t kaq_random_seed(uint64_t sec, uint64_t nsec, uint64_t tid, int pid);

/* Fills `n` bytes with the xoshiro256++ sequence that starts at `seed`; of all zeros, at 1. */
void kaq_random_expand(const uint64_t seed[4], unsigned char *bytes, size_t n);

/* Fills `n` bytes with the low bytes of the splitmix64 sequence that starts at `seed`. */
void kaq_random_fallback(uint64_t seed, unsigned char *bytes, size_t n);
