/*
 * Preloaded into an engine: the wall clock stands, and only usleep() puts it forward, by the very
 * duration asked for. So a call lasts as long as it says, however busy the machine.
 */
#include <atomic>
#include <dlfcn.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const int64_t NS_PER_MS = 1000000;
static const int64_t NS_PER_SECOND = 1000 * NS_PER_MS;

/* Nanoseconds since the epoch. The last one of its millisecond: nobody who counts the processor's
 * cycles can conclude that the millisecond goes on. */
static std::atomic<int64_t> stands_at;

__attribute__((constructor)) static void stop_clock() {
	struct timespec now;
	syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
	stands_at = (now.tv_sec * 1000 + now.tv_nsec / NS_PER_MS + 1) * NS_PER_MS - 1;
}

extern "C" int clock_gettime(clockid_t clock, struct timespec *time) noexcept {
	if (clock != CLOCK_REALTIME) {
		return (int)syscall(SYS_clock_gettime, clock, time);
	}
	int64_t now = stands_at;
	*time = {(time_t)(now / NS_PER_SECOND), (long)(now % NS_PER_SECOND)};
	return 0;
}

extern "C" int gettimeofday(struct timeval *time, void *) noexcept {
	struct timespec now;
	clock_gettime(CLOCK_REALTIME, &now);
	*time = {now.tv_sec, now.tv_nsec / 1000};
	return 0;
}

/* The engine would have an extension look for the C library's functions before ours. */
extern "C" void *dlopen(const char *path, int flags) noexcept {
	static auto *next = (void *(*)(const char *, int))dlsym(RTLD_NEXT, "dlopen");
	return next(path, flags & ~RTLD_DEEPBIND);
}

/* Durations are whole milliseconds. */
extern "C" int usleep(useconds_t duration) {
	stands_at += (int64_t)(duration / 1000) * NS_PER_MS;
	return 0;
}
