/*
 * Preloaded into an engine, so that a script can call for a fault of its process: usleep() of the
 * durations below. Any other duration sleeps.
 */
#include <initializer_list>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#define HEAP_WAS_USED 99

enum fault {
	STORE_TO_NULL = 900001,
	STORE_TO_NO_ADDRESS,
	DIVIDE_BY_ZERO,
	RUN_NO_INSTRUCTION,
	ABORT,
	CALL_FORBIDDEN,
	STORE_WITH_BROKEN_HEAP,
	PUT_DEFAULTS_IN_PLACE,
	STORE_IN_THREAD,
};

/* Seen by the C library, whose functions take memory; an extension calls its malloc directly. */
static volatile bool heap_is_broken;

extern "C" void *__libc_malloc(size_t size);

void *malloc(size_t size) {
	if (heap_is_broken) {
		_exit(HEAP_WAS_USED);
	}
	return __libc_malloc(size);
}

static void store_to(uintptr_t address) {
	volatile uintptr_t target = address;
	*(volatile int *)target = 1;
}

static void divide_by_zero(void) {
	volatile int dividend = 42;
	volatile int zero = 0;
	volatile int quotient = dividend / zero;
	(void)quotient;
}

/* The system answers getppid() with a SIGSYS that does not come again. */
static void call_forbidden(void) {
	struct sock_filter rules[] = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, (unsigned)offsetof(struct seccomp_data, nr)),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getppid, 0, 1),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
	};
	struct sock_fprog program = {sizeof(rules) / sizeof(rules[0]), rules};
	prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
	prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0);
	syscall(SYS_getppid);
}

static void put_defaults_in_place(void) {
	for (int number : {SIGFPE, SIGSEGV, SIGILL, SIGABRT, SIGSYS}) {
		signal(number, SIG_DFL);
	}
}

static void *store_in_thread(void *unused) {
	store_to(0);
	return unused;
}

static void crash_in_thread(void) {
	pthread_t thread;
	if (pthread_create(&thread, nullptr, store_in_thread, nullptr) == 0) {
		pthread_join(thread, nullptr);
	}
}

int usleep(useconds_t duration) {
	switch (duration) {
	case STORE_TO_NULL:
		store_to(0);
		break;
	case STORE_TO_NO_ADDRESS:
		store_to((uintptr_t)1 << 63);
		break;
	case DIVIDE_BY_ZERO:
		divide_by_zero();
		break;
	case RUN_NO_INSTRUCTION:
		__builtin_trap();
	case ABORT:
		abort();
	case CALL_FORBIDDEN:
		call_forbidden();
		break;
	case STORE_WITH_BROKEN_HEAP:
		heap_is_broken = true;
		store_to(0);
		break;
	case PUT_DEFAULTS_IN_PLACE:
		put_defaults_in_place();
		break;
	case STORE_IN_THREAD:
		crash_in_thread();
		break;
	default: {
		struct timespec time = {(time_t)(duration / 1000000), (long)(duration % 1000000) * 1000};
		return nanosleep(&time, nullptr);
	}
	}
	return 0;
}
