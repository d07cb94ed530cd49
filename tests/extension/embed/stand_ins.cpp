#include "stand_ins.h"

#include <errno.h>
#include <malloc.h>
#include <stddef.h>
#include <sys/resource.h>

#include "util/kaq_clock.h"

static uint64_t fixed_ms;
static bool gate_is_shut;
static int failing_allocation;
static int failing_header_line;
static bool cpu_is_fixed;
static bool cpu_is_refused;
static struct rusage fixed_cpu;
static int calls_of_generator;
static int64_t characters_of_generator;

extern "C" {
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);
void *__real_calloc(size_t count, size_t size);
int __real_getrusage(int who, struct rusage *usage);
uint64_t __real__Z15kaq_now_ms_slowv(void);
void __real__Z14kaq_wall_clockPmS_(uint64_t *sec, uint64_t *usec);
void __real__Z14kaq_random_hexlPc(int64_t length, char *buffer);
char *__real__Z24header_format_name_valuePKcS0_i(const char *name, const char *value, int crlf);

void *__wrap_malloc(size_t size);
void *__wrap_realloc(void *block, size_t size);
void *__wrap_calloc(size_t count, size_t size);
int __wrap_getrusage(int who, struct rusage *usage);
uint64_t __wrap__Z15kaq_now_ms_slowv(void);
void __wrap__Z14kaq_wall_clockPmS_(uint64_t *sec, uint64_t *usec);
void __wrap__Z14kaq_random_hexlPc(int64_t length, char *buffer);
char *__wrap__Z24header_format_name_valuePKcS0_i(const char *name, const char *value, int crlf);
}

void stand_ins_reset(void) {
	fixed_ms = 0;
	gate_is_shut = false;
	failing_allocation = 0;
	failing_header_line = 0;
	cpu_is_fixed = false;
	cpu_is_refused = false;
	calls_of_generator = 0;
	characters_of_generator = 0;
	kaq_clock_thread.valid = 0;
}

void clock_stands_at(uint64_t ms) {
	fixed_ms = ms;
	/* The gate in the header answers from its own record. */
	kaq_clock_thread.cycles = 0;
	kaq_clock_thread.valid = gate_is_shut ? 0 : UINT64_MAX;
	kaq_clock_thread.ms = ms;
}

void clock_is_read_each_time(bool is_read) {
	gate_is_shut = is_read;
}

void clock_advances(uint64_t ms) {
	clock_stands_at(fixed_ms + ms);
}

void allocation_fails(int n) {
	failing_allocation = n;
}

void header_line_fails(int n) {
	failing_header_line = n;
}

void cpu_times_are(long user_sec, long user_usec, long sys_sec, long sys_usec) {
	cpu_is_refused = false;
	cpu_is_fixed = true;
	fixed_cpu.ru_utime = {user_sec, user_usec};
	fixed_cpu.ru_stime = {sys_sec, sys_usec};
}

void cpu_times_are_refused(void) {
	cpu_is_refused = true;
}

int generator_calls(void) {
	return calls_of_generator;
}

int64_t generator_characters(void) {
	return characters_of_generator;
}

#ifdef __SANITIZE_ADDRESS__
extern "C" {
size_t __sanitizer_get_current_allocated_bytes(void);
void __lsan_disable(void);
void __lsan_enable(void);
}

void leak_check_off(void) {
	__lsan_disable();
}

void leak_check_on(void) {
	__lsan_enable();
}

size_t heap_in_use(void) {
	return __sanitizer_get_current_allocated_bytes();
}
#else
void leak_check_off(void) {
}

void leak_check_on(void) {
}

size_t heap_in_use(void) {
	struct mallinfo2 info = mallinfo2();
	return info.uordblks + info.hblkhd;
}
#endif

static bool allocation_is_refused(void) {
	return failing_allocation > 0 && --failing_allocation == 0;
}

void *__wrap_malloc(size_t size) {
	return allocation_is_refused() ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *block, size_t size) {
	return allocation_is_refused() ? nullptr : __real_realloc(block, size);
}

void *__wrap_calloc(size_t count, size_t size) {
	return allocation_is_refused() ? nullptr : __real_calloc(count, size);
}

int __wrap_getrusage(int who, struct rusage *usage) {
	if (cpu_is_refused) {
		errno = EINVAL;
		return -1;
	}
	if (cpu_is_fixed) {
		*usage = fixed_cpu;
		return who == RUSAGE_SELF ? 0 : -1;
	}
	return __real_getrusage(who, usage);
}

uint64_t __wrap__Z15kaq_now_ms_slowv(void) {
	return fixed_ms ? fixed_ms : __real__Z15kaq_now_ms_slowv();
}

void __wrap__Z14kaq_wall_clockPmS_(uint64_t *sec, uint64_t *usec) {
	if (fixed_ms) {
		*sec = fixed_ms / 1000;
		*usec = fixed_ms % 1000 * 1000 + 999;
		return;
	}
	__real__Z14kaq_wall_clockPmS_(sec, usec);
}

void __wrap__Z14kaq_random_hexlPc(int64_t length, char *buffer) {
	calls_of_generator++;
	characters_of_generator += length;
	__real__Z14kaq_random_hexlPc(length, buffer);
}

char *__wrap__Z24header_format_name_valuePKcS0_i(const char *name, const char *value, int crlf) {
	if (failing_header_line > 0 && --failing_header_line == 0) {
		return nullptr;
	}
	return __real__Z24header_format_name_valuePKcS0_i(name, value, crlf);
}
