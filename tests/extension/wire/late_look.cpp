/*
 * Preloaded into an engine: looks at the process when the engine, and all that it had loaded, is
 * gone. Writes into the file that LATE_LOOK names "looked" and one line for each hook of the engine
 * and each fatal signal that leads to code which is no longer there, then sends itself the signal
 * that LATE_SIGNAL names, if any.
 */
#include <dlfcn.h>
#include <initializer_list>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

/* Opened at the beginning, since the environment is the engine's to change. */
static FILE *report;
static int late_signal;

static bool is_there(const void *code) {
	Dl_info info;
	return !code || dladdr(code, &info) != 0;
}

static void look_at_hook(const char *name) {
	void *const *hook = (void *const *)dlsym(RTLD_DEFAULT, name);
	if (!hook) {
		fprintf(report, "%s is not known\n", name);
	} else if (!is_there(*hook)) {
		fprintf(report, "%s dangles\n", name);
	}
}

static void look_at_signal(int number) {
	struct sigaction action;
	if (sigaction(number, nullptr, &action) != 0) {
		fprintf(report, "signal %d is not known\n", number);
	} else if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN &&
			   !is_there((const void *)action.sa_sigaction)) {
		fprintf(report, "signal %d dangles\n", number);
	}
}

__attribute__((constructor)) static void read_environment() {
	const char *number = getenv("LATE_SIGNAL");
	late_signal = number ? atoi(number) : 0;
	const char *path = getenv("LATE_LOOK");
	report = path ? fopen(path, "w") : nullptr;
}

__attribute__((destructor)) static void look() {
	if (!report) {
		return;
	}
	fprintf(report, "looked\n");
	for (const char *hook : {"zend_execute_ex", "zend_error_cb", "zend_throw_exception_hook"}) {
		look_at_hook(hook);
	}
	for (int number : {SIGFPE, SIGSEGV, SIGILL, SIGABRT, SIGSYS}) {
		look_at_signal(number);
	}
	fclose(report);
	if (late_signal) {
		raise(late_signal);
	}
}
