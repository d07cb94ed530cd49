/*
 * What the linker lets a test stand in for in the extension: its clocks, its random generator, its
 * allocations and the process's CPU times. Everything is real until a test says otherwise, and
 * stand_ins_reset() makes it so again.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

void stand_ins_reset(void);

/* All clocks stand at this millisecond since the epoch until they are set again. */
void clock_stands_at(uint64_t ms);
void clock_advances(uint64_t ms);
/* Whether it says that its millisecond may have ended; from its next stand on. */
void clock_is_read_each_time(bool is_read);

/* The n-th malloc, realloc or calloc of the extension from now on gives null (1: the next one). */
void allocation_fails(int n);

/* The n-th header line that is to be put together from now on cannot be (1: the next one). */
void header_line_fails(int n);

/* CPU times of the process; microseconds may be 0 to 999999. */
void cpu_times_are(long user_sec, long user_usec, long sys_sec, long sys_usec);
void cpu_times_are_refused(void);

/* Calls of the random generator since the last reset, and the characters asked for in all. */
int generator_calls(void);
int64_t generator_characters(void);

/* Bytes of the process heap that are in use, blocks that the heap keeps for reuse among them. */
size_t heap_in_use(void);

/* Between these two the leak check of a sanitizer takes no notice of new blocks: what a bailout
 * unwinds over stays with the engine's allocator until request end. */
void leak_check_off(void);
void leak_check_on(void);

/* Whether `work` leaves something on the heap each time. A single step up is none: the heap and
 * the engine keep a block now and then. */
template <typename Work> bool leaks(Work work) {
	size_t before = 0;
	for (int interval = 0; interval < 8; interval++) {
		for (int round = 0; round < 10; round++) {
			work();
		}
		size_t after = heap_in_use();
		if (after <= before) {
			return false;
		}
		before = after;
	}
	return true;
}
