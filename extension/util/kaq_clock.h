/*
 * Wall clock in whole milliseconds since the Unix epoch, cheap enough to be read twice per call
 * of a user function.
 *
 * Each thread keeps the last millisecond that it read, together with a number of cycles of the
 * processor's time-stamp counter for which this millisecond is certain to last. Until they have
 * passed kaq_now_ms answers from the record; afterwards it reads the clock again. This gate works
 * only where the counter runs at a constant rate, and only after its rate has been measured; the
 * measurement costs no waiting, it compares two clock readings that are needed anyway and lie at
 * least 5 ms apart. Before that, and where the counter cannot be trusted, every call reads the
 * clock. A step of the system clock is seen at the end of the millisecond in which it happens.
 *
 * Call order: kaq_clock_startup once per process before the first request. A process that never
 * calls it gets correct times, only slower. All other functions may be called by any thread.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* The processor's counter. On 64-bit ARM it is the one of the system's timer, whose rate is
 * constant by the architecture, though lower. */
static inline uint64_t kaq_clock_counter(void) {
#ifdef __x86_64__
	return __builtin_ia32_rdtsc();
#else
	uint64_t cycles;
	__asm__ volatile("mrs %0, cntvct_el0" : "=r"(cycles));
	return cycles;
#endif
}

/* One thread's last reading. Private to the inline function below and to kaq_clock.cpp. */
struct kaq_clock_thread_state {
	uint64_t cycles; /* counter just before the reading */
	uint64_t valid;  /* cycles after it for which `ms` holds for certain; 0: read again */
	uint64_t ms;
	/* For whoever links this: a pointer of the thread's that is found by the same look-up. */
	void *companion;
	/* Earlier point of the rate measurement: monotonic ns (0: none yet), counter before, after. */
	uint64_t base_ns;
	uint64_t base_before;
	uint64_t base_after;
};

extern __thread kaq_clock_thread_state kaq_clock_thread
	__attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Reads the clock and renews the thread's record. Private to kaq_now_ms. */
uint64_t kaq_now_ms_slow(void);

/* Whether the last reading still holds; then it is stored. For callers that keep what calls a
 * function out of their usual path. */
static inline bool kaq_now_ms_known(uint64_t *ms) {
	/* A counter that seems to have run backwards wraps to a huge difference: the slow way. */
	const kaq_clock_thread_state *state = &kaq_clock_thread;
	*ms = state->ms;
	return __builtin_expect(kaq_clock_counter() - state->cycles < state->valid, 1);
}

/* Milliseconds since the Unix epoch, now. */
static inline uint64_t kaq_now_ms(void) {
	uint64_t ms;
	return kaq_now_ms_known(&ms) ? ms : kaq_now_ms_slow();
}

/*
 * Decides whether the processor's counter can be trusted and takes the first point of its
 * measurement. Once per process, at module startup; a second call starts over.
 */
void kaq_clock_startup(void);

/* Seconds since the Unix epoch and microseconds (0 to 999999) within the second. */
void kaq_wall_clock(uint64_t *sec, uint64_t *usec);

/* sec * 1000 + usec / 1000, each truncated. */
uint64_t kaq_ms_of(uint64_t sec, uint64_t usec);

/* Milliseconds of the monotonic clock as of the kernel's last tick, at most 10 ms ago, from an
 * unspecified start: for time-outs. */
uint64_t kaq_monotonic_ms(void);

/*
 * Cycles for which a millisecond lasts for certain when `ns_in_ms` nanoseconds (0 to 999999) of it
 * have passed and the counter makes at least `rate_per_ms` cycles per millisecond: nine tenths
 * of what is left after a reserve of one microsecond. 0 where the rate is 0 (unknown).
 */
uint64_t kaq_clock_deadline_cycles(uint64_t ns_in_ms, uint64_t rate_per_ms);

/*
 * Lower bound of the counter's cycles per millisecond, from two points `elapsed_ns` apart. Each
 * point has the counter read before and after its clock reading, so a thread that lost the
 * processor in between makes the bound smaller, never too large. 0 when the points cannot be used:
 * less than 5 ms or more than 1 s apart, a counter that ran backwards, or readings so slow that the
 * bound would be more than 2 % short.
 */
uint64_t kaq_clock_rate(uint64_t elapsed_ns, uint64_t first_before, uint64_t first_after,
						uint64_t second_before, uint64_t second_after);

/* Switches the gate off (0) or back on for all threads, for comparisons in tests and benchmarks. */
void kaq_clock_use_gate(int on);

/* 1 when the gate is on, the counter trusted and its rate known, else 0. */
int kaq_clock_gate_ready(void);
