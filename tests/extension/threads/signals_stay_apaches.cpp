/*
 * Loaded before Apache (LD_PRELOAD): the engine changes no signal handler of the process.
 *
 * An engine built with Zend signal handling, the default from 7.1 on, puts handlers of its own in
 * place of Apache's, and they look for the running thread's engine state. Apache's listener thread
 * has none, so the signal by which a graceful restart ends that thread is a crash, without any
 * extension. What is left here is an engine built without Zend signal handling.
 */
#include <dlfcn.h>
#include <signal.h>
#include <string.h>

typedef int sigaction_t(int, const struct sigaction *, struct sigaction *);

static int is_engine(const void *address) {
	Dl_info info;
	return dladdr(address, &info) && strstr(info.dli_fname, "/libphp");
}

extern "C" __attribute__((visibility("default"))) int
sigaction(int number, const struct sigaction *now, struct sigaction *before) noexcept {
	static sigaction_t *next = (sigaction_t *)dlsym(RTLD_NEXT, "sigaction");
	return next(number, is_engine(__builtin_return_address(0)) ? nullptr : now, before);
}
