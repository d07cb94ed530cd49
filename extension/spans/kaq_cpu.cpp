#include "spans/kaq_execute.h"
#include "state/php_kaq.h"
#include "util/kaq_clock.h"

#include <sys/resource.h>

static int kaq_read_cpu(uint64_t *user_ms, uint64_t *sys_ms) {
	*user_ms = 0;
	*sys_ms = 0;
	struct rusage usage;
	if (getrusage(RUSAGE_SELF, &usage) != 0) {
		return -1;
	}
	*user_ms = kaq_ms_of((uint64_t)usage.ru_utime.tv_sec, (uint64_t)usage.ru_utime.tv_usec);
	*sys_ms = kaq_ms_of((uint64_t)usage.ru_stime.tv_sec, (uint64_t)usage.ru_stime.tv_usec);
	return 0;
}

static uint64_t kaq_elapsed(uint64_t start, uint64_t end) {
	return end > start ? end - start : 0;
}

int kaq_cpu_usage_start(void) {
	kaq_cpu *cpu = kaq_get_globals()->cpu_time;
	return kaq_read_cpu(&cpu->user_start_time, &cpu->sys_start_time);
}

int kaq_cpu_usage_end(void) {
	kaq_cpu *cpu = kaq_get_globals()->cpu_time;
	cpu->total_time = 0;
	if (kaq_read_cpu(&cpu->user_end_time, &cpu->sys_end_time) != 0) {
		return -1;
	}
	cpu->total_time = kaq_elapsed(cpu->user_start_time, cpu->user_end_time) +
					  kaq_elapsed(cpu->sys_start_time, cpu->sys_end_time);
	return 0;
}
