#include "util/kaq_random.h"

#include "util/byte_block.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const char DEVICE[] = "/dev/urandom";

static const char DIGITS[] = "0123456789abcdef";

static const uint64_t GOLDEN_GAMMA = 0x9e3779b97f4a7c15;

/* This many bytes are kept on the stack. */
static const size_t STACK_BYTES = 64;

uint64_t kaq_random_seed(uint64_t sec, uint64_t nsec, uint64_t tid, int pid) {
	uint64_t seed = (sec << 32 ^ nsec) ^ tid ^ (uint64_t)(int64_t)pid << 16;
	return seed == 0 ? GOLDEN_GAMMA : seed;
}

void kaq_random_fallback(uint64_t seed, unsigned char *bytes, size_t n) {
	uint64_t state = seed;
	for (size_t i = 0; i < n; i++) {
		state += GOLDEN_GAMMA;
		uint64_t z = state;
		z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
		z = (z ^ z >> 27) * 0x94d049bb133111eb;
		bytes[i] = (unsigned char)(z ^ z >> 31);
	}
}

static uint64_t kaq_seed_now(void) {
	struct timespec now = {0, 0};
	clock_gettime(CLOCK_REALTIME, &now);
	return kaq_random_seed((uint64_t)now.tv_sec, (uint64_t)now.tv_nsec,
						   (uint64_t)syscall(SYS_gettid), getpid());
}

/* Returns 1 when all `n` bytes came from the system. It hands out less than it was asked for when a
 * signal arrives. Early after boot it would wait, which the device does not. */
static int kaq_ask_system(kaq_getrandom_fn system, unsigned char *bytes, size_t n) {
	size_t got = 0;
	while (got < n) {
		ssize_t count = system(bytes + got, n - got, GRND_NONBLOCK);
		if (count == 0 || (count < 0 && errno != EINTR)) {
			return 0;
		}
		got += count < 0 ? 0 : (size_t)count;
	}
	return 1;
}

/* Returns 1 when all `n` bytes came from the device. */
static int kaq_read_device(const char *device, unsigned char *bytes, size_t n) {
	FILE *file = fopen(device, "rbe");
	if (file == nullptr) {
		return 0;
	}
	/* Buffered, it would read thousands of bytes for an identifier of eight. */
	setvbuf(file, nullptr, _IONBF, 0);
	size_t got = fread(bytes, 1, n, file);
	fclose(file);
	return got == n;
}

static inline uint64_t kaq_rotated(uint64_t value, int bits) {
	return value << bits | value >> (64 - bits);
}

static inline uint64_t kaq_next_value(uint64_t s[4]) {
	uint64_t value = kaq_rotated(s[0] + s[3], 23) + s[0];
	uint64_t shifted = s[1] << 17;
	s[2] ^= s[0];
	s[3] ^= s[1];
	s[1] ^= s[2];
	s[0] ^= s[3];
	s[2] ^= shifted;
	s[3] = kaq_rotated(s[3], 45);
	return value;
}

void kaq_random_expand(const uint64_t seed[4], unsigned char *bytes, size_t n) {
	uint64_t s[4];
	memcpy(s, seed, sizeof s);
	/* From zeros alone it would not get away. */
	s[0] |= !(s[0] | s[1] | s[2] | s[3]);
	for (; n >= 8; bytes += 8, n -= 8) {
		uint64_t value = kaq_next_value(s);
		memcpy(bytes, &value, 8);
	}
	uint64_t last = kaq_next_value(s);
	memcpy(bytes, &last, n);
}

static void kaq_fill(kaq_getrandom_fn system, const char *device, unsigned char *bytes, size_t n) {
	if ((system == nullptr || !kaq_ask_system(system, bytes, n)) &&
		!kaq_read_device(device, bytes, n)) {
		kaq_random_fallback(kaq_seed_now(), bytes, n);
	}
}

/* Two digits per byte, high nibble first; eight bytes at a time, since a long request asks for many
 * thousands. */
static void kaq_put_hex(char *out, const unsigned char *bytes, size_t n) {
	size_t i = 0;
	for (; i + 8 <= n; i += 8) {
		kaq_block eight = kaq_block_load_half(bytes + i);
		kaq_block high = eight >> 4;
		kaq_block low = eight & 15;
		kaq_block digits = __builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5,
												   21, 6, 22, 7, 23);
		kaq_block letters = (kaq_block)(digits > 9);
		digits += (uint8_t)'0' + (letters & (uint8_t)('a' - '0' - 10));
		kaq_block_store(out + 2 * i, digits);
	}
	for (; i < n; i++) {
		out[2 * i] = DIGITS[bytes[i] >> 4];
		out[2 * i + 1] = DIGITS[bytes[i] & 15];
	}
}

void kaq_random_hex_from(kaq_getrandom_fn system, const char *device, int64_t length,
						 char *buffer) {
	if (buffer == nullptr || length < 1) {
		return;
	}
	size_t chars = (size_t)length;
	size_t n = (chars + 1) / 2;
	unsigned char on_stack[STACK_BYTES] = {0};
	unsigned char *bytes = on_stack;
	if (n > STACK_BYTES) {
		bytes = (unsigned char *)malloc(n);
		if (bytes == nullptr) {
			return;
		}
	}
	if (n <= KAQ_RANDOM_MOST_BYTES) {
		kaq_fill(system, device, bytes, n);
	} else {
		uint64_t seed[4];
		kaq_fill(system, device, (unsigned char *)seed, sizeof seed);
		kaq_random_expand(seed, bytes, n);
	}
	kaq_put_hex(buffer, bytes, chars / 2);
	if (chars % 2 != 0) {
		buffer[chars - 1] = DIGITS[bytes[n - 1] >> 4];
	}
	buffer[chars] = '\0';
	if (bytes != on_stack) {
		free(bytes);
	}
}

void kaq_random_hex_logic(int64_t length, char *buffer) {
	kaq_random_hex_from(getrandom, DEVICE, length, buffer);
}

void kaq_random_hex(int64_t length, char *buffer) {
	if (buffer == nullptr || length < 0) {
		return;
	}
	memset(buffer, 0, (size_t)length + 1);
	kaq_random_hex_logic(length, buffer);
}
