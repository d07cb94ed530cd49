/*
 * Sixteen bytes at a time, on every processor alike. The compilers' vectors do most: operators act
 * on each byte, and a comparison gives 0xff where it holds and 0 where it does not.
 */
#pragma once

#include <stdint.h>
#include <string.h>

#ifdef __SSE2__
#include <emmintrin.h>
#else
#include <arm_neon.h>
#endif

typedef uint8_t kaq_block __attribute__((vector_size(16)));

static inline kaq_block kaq_block_of(uint64_t low, uint64_t high) {
	typedef uint64_t two_words __attribute__((vector_size(16)));
	return (kaq_block)(two_words){low, high};
}

static inline kaq_block kaq_block_fill(uint8_t byte) {
	return (kaq_block){} + byte;
}

static inline kaq_block kaq_block_load(const void *from) {
	kaq_block block;
	memcpy(&block, from, sizeof block);
	return block;
}

/* Eight bytes, and zeros. */
static inline kaq_block kaq_block_load_half(const void *from) {
	uint64_t half;
	memcpy(&half, from, sizeof half);
	return kaq_block_of(half, 0);
}

static inline void kaq_block_store(void *to, kaq_block block) {
	memcpy(to, &block, sizeof block);
}

/* One bit for each byte of a comparison's result, the first byte's the lowest. */
static inline unsigned kaq_block_mask(kaq_block compared) {
#ifdef __SSE2__
	return (unsigned)_mm_movemask_epi8((__m128i)compared);
#else
	const uint8x16_t weights = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
	uint8x16_t bits = vandq_u8((uint8x16_t)compared, weights);
	return vaddv_u8(vget_low_u8(bits)) | (unsigned)vaddv_u8(vget_high_u8(bits)) << 8;
#endif
}
