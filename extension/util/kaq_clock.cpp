#include "util/kaq_clock.h"

#include <atomic>
#include <fcntl.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#ifdef __x86_64__
#include <cpuid.h>
#endif

static const uint64_t NS_PER_MS = 1000000;

/* Absorbs what the processor may reorder around a reading of the counter. */
static const uint64_t DEADLINE_RESERVE_NS = 1000;

static const uint64_t MEASURE_MIN_NS = 5 * NS_PER_MS;

/* Over a longer time the machine may have been suspended, which the clock and the counter count
 * differently. */
static const uint64_t MEASURE_MAX_NS = 1000 * NS_PER_MS;

__thread kaq_clock_thread_state kaq_clock_thread
	__attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Each value stands for itself, so relaxed order is enough: no other data depends on them. */
static std::atomic<uint64_t> cycles_per_ms{0};
static std::atomic<int> counter_trusted{0};
static std::atomic<int> gate_on{1};

static int kaq_counter_is_invariant(void) {
#ifdef __x86_64__
	unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
	return __get_cpuid(0x80000007, &eax, &ebx, &ecx, &edx) != 0 && (edx & (1u << 8)) != 0;
#else
	return 1;
#endif
}

/* The kernel falls back on these clocks when it finds that the processors' counters differ. */
static int kaq_kernel_distrusts_counter(void) {
	char name[32];
	int fd = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
				  O_RDONLY | O_CLOEXEC);
	if (fd < 0) {
		return 0;
	}
	ssize_t length = read(fd, name, sizeof name - 1);
	close(fd);
	name[length < 0 ? 0 : length] = '\0';
	return strncmp(name, "hpet", 4) == 0 || strncmp(name, "acpi_pm", 7) == 0 ||
		   strstr(name, "jiffies") != nullptr;
}

static uint64_t kaq_monotonic_ns(void) {
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

uint64_t kaq_monotonic_ms(void) {
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
	return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / NS_PER_MS;
}

uint64_t kaq_clock_rate(uint64_t elapsed_ns, uint64_t first_before, uint64_t first_after,
						uint64_t second_before, uint64_t second_after) {
	if (elapsed_ns < MEASURE_MIN_NS || elapsed_ns > MEASURE_MAX_NS || first_after < first_before ||
		second_before <= first_after || second_after < second_before) {
		return 0;
	}
	uint64_t least = second_before - first_after;
	uint64_t most = second_after - first_before;
	if (least < most - most / 50) {
		return 0;
	}
	return (uint64_t)((unsigned __int128)least * NS_PER_MS / elapsed_ns);
}

/* Takes the first point, or measures against it once it is old enough. */
static void kaq_measure(kaq_clock_thread_state *state) {
	uint64_t before = kaq_clock_counter();
	uint64_t now = kaq_monotonic_ns();
	uint64_t after = kaq_clock_counter();
	uint64_t elapsed = now - state->base_ns;
	if (state->base_ns != 0 && elapsed < MEASURE_MIN_NS) {
		return;
	}
	if (state->base_ns != 0) {
		uint64_t rate =
			kaq_clock_rate(elapsed, state->base_before, state->base_after, before, after);
		if (rate != 0) {
			cycles_per_ms.store(rate, std::memory_order_relaxed);
			return;
		}
	}
	state->base_ns = now;
	state->base_before = before;
	state->base_after = after;
}

uint64_t kaq_clock_deadline_cycles(uint64_t ns_in_ms, uint64_t rate_per_ms) {
	if (ns_in_ms + DEADLINE_RESERVE_NS >= NS_PER_MS) {
		return 0;
	}
	uint64_t left = NS_PER_MS - ns_in_ms - DEADLINE_RESERVE_NS;
	return (uint64_t)((unsigned __int128)left * rate_per_ms / NS_PER_MS * 9 / 10);
}

uint64_t kaq_now_ms_slow(void) {
	kaq_clock_thread_state *state = &kaq_clock_thread;
	uint64_t rate = 0;
	if (gate_on.load(std::memory_order_relaxed) &&
		counter_trusted.load(std::memory_order_relaxed)) {
		rate = cycles_per_ms.load(std::memory_order_relaxed);
		if (rate == 0) {
			kaq_measure(state);
		}
	}
	struct timespec now;
	uint64_t before = kaq_clock_counter();
	clock_gettime(CLOCK_REALTIME, &now);
	state->cycles = before;
	state->valid = kaq_clock_deadline_cycles((uint64_t)now.tv_nsec % NS_PER_MS, rate);
	state->ms = (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / NS_PER_MS;
	return state->ms;
}

void kaq_clock_startup(void) {
	cycles_per_ms.store(0, std::memory_order_relaxed);
	int trusted = kaq_counter_is_invariant() && !kaq_kernel_distrusts_counter();
	counter_trusted.store(trusted, std::memory_order_relaxed);
	kaq_clock_thread = {0, 0, 0, kaq_clock_thread.companion, 0, 0, 0};
	if (trusted) {
		kaq_measure(&kaq_clock_thread);
	}
}

void kaq_clock_use_gate(int on) {
	gate_on.store(on, std::memory_order_relaxed);
	kaq_clock_thread.valid = 0;
}

int kaq_clock_gate_ready(void) {
	return gate_on.load(std::memory_order_relaxed) &&
		   counter_trusted.load(std::memory_order_relaxed) &&
		   cycles_per_ms.load(std::memory_order_relaxed) != 0;
}

void kaq_wall_clock(uint64_t *sec, uint64_t *usec) {
	struct timeval now;
	gettimeofday(&now, nullptr);
	*sec = (uint64_t)now.tv_sec;
	*usec = (uint64_t)now.tv_usec;
}

uint64_t kaq_ms_of(uint64_t sec, uint64_t usec) {
	return sec * 1000 + usec / 1000;
}
