#include "diagnostics/crash_handler.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#define KAQ_CRASH_PATH_SIZE 256
#define KAQ_CRASH_LINE_SIZE 128
#define KAQ_SIGNAL_STACK_SIZE ((size_t)128 * 1024)
#define KAQ_COMMAND_SIZE 256

/* In the order in which the handler is installed and removed. `before` is what the first
 * installation found. */
static struct {
	int number;
	const char *complaint;
	struct sigaction before;
} fatal_signals[] = {
	{SIGFPE, "sigusr: sigaction SIGFPE", {}}, {SIGSEGV, "sigusr: sigaction SIGSEGV", {}},
	{SIGILL, "sigusr: sigaction SIGILL", {}}, {SIGABRT, "sigusr: sigaction SIGABRT", {}},
	{SIGSYS, "sigusr: sigaction SIGSYS", {}},
};
static bool is_installed;

static __thread void *signal_stack;

/* A short write is not continued: nothing could be done about it. */
static void kaq_put_text(int fd, const char *text, size_t length) {
	ssize_t written = write(fd, text, length);
	(void)written;
}

/* For short texts. */
static void kaq_put_line(int fd, const char *format, ...) __attribute__((format(printf, 2, 3)));
static void kaq_put_line(int fd, const char *format, ...) {
	char line[KAQ_CRASH_LINE_SIZE];
	va_list values;
	va_start(values, format);
	int length = vsnprintf(line, sizeof(line), format, values);
	va_end(values);
	if (length > 0) {
		kaq_put_text(fd, line, (size_t)length);
	}
}

static unsigned kaq_instruction_pointer(const void *context) {
#ifdef __x86_64__
	return (unsigned)((const ucontext_t *)context)->uc_mcontext.gregs[REG_RIP];
#elif defined(__aarch64__)
	return (unsigned)((const ucontext_t *)context)->uc_mcontext.pc;
#else
	(void)context;
	return 0;
#endif
}

static void kaq_put_name(int fd, const char *name) {
	kaq_put_text(fd, name, strlen(name));
}

static void kaq_put_symbol(int fd, const Dl_info *info, const struct link_map *map,
						   const char *frame) {
	const char *base = (const char *)info->dli_saddr;
	if (!info->dli_sname) {
		base = (const char *)map->l_addr;
	}
	kaq_put_name(fd, info->dli_fname);
	kaq_put_name(fd, "(");
	kaq_put_name(fd, info->dli_sname ? info->dli_sname : "");
	if (base) {
		char sign = frame >= base ? '+' : '-';
		kaq_put_line(fd, "%c%#tx", sign, frame >= base ? frame - base : base - frame);
	}
	kaq_put_name(fd, ") ");
}

/* Writes what backtrace_symbols would return, which takes memory from the process heap. */
static void kaq_put_frame(int fd, const void *frame) {
	Dl_info info;
	struct link_map *map = nullptr;
	kaq_put_name(fd, "Trace ");
	if (dladdr1(frame, &info, (void **)&map, RTLD_DL_LINKMAP) && info.dli_fname &&
		info.dli_fname[0]) {
		kaq_put_symbol(fd, &info, map, (const char *)frame);
	}
	kaq_put_line(fd, "[%p]\n", frame);
}

static void kaq_put_frames(int fd) {
	void *frames[KAQ_CRASH_FRAMES];
	int count = backtrace(frames, KAQ_CRASH_FRAMES);
	kaq_put_line(fd, "KAQ CRASH Backtrace messages size: %d\n", count);
	for (int i = 0; i < count; i++) {
		kaq_put_frame(fd, frames[i]);
	}
}

static void kaq_write_log(int fd, int signal_number, const siginfo_t *info, const void *context) {
	kaq_put_line(fd, "KAQ CRASH Signal %d received\n", signal_number);
	kaq_put_line(fd, "KAQ CRASH siginfo address=%p\n", info->si_addr);
	kaq_put_line(fd, "KAQ CRASH siginfo code =%d\n", info->si_code);
	kaq_put_line(fd, "KAQ CRASH address = %x\n", kaq_instruction_pointer(context));
	kaq_put_line(STDOUT_FILENO, "Program start addres = %d\n", 0);
	kaq_put_frames(fd);
}

/* A fault recurs when its instruction runs again. A signal that was sent does not. */
static bool kaq_comes_again(int signal_number, const siginfo_t *info) {
	return info->si_code > 0 && signal_number != SIGSYS;
}

/* Opens a regular file that has one name and is not a link: through a link the log would go into
 * another file. Does not block: a pipe that nobody reads must not keep the process from dying.
 * Returns -1 if there is to be no log. */
static int kaq_open_log(void) {
	char path[KAQ_CRASH_PATH_SIZE];
	snprintf(path, sizeof(path), KAQ_CRASH_LOG, (int)getpid());
	int fd = open(
		path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0666);
	struct stat found;
	if (fd >= 0 && (fstat(fd, &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink > 1)) {
		close(fd);
		return -1;
	}
	return fd;
}

void catchit(int signal_number, siginfo_t *info, void *context) {
	int fd = kaq_open_log();
	if (fd >= 0) {
		kaq_write_log(fd, signal_number, info, context);
		close(fd);
	}
	for (const auto &fatal : fatal_signals) {
		signal(fatal.number, SIG_DFL);
	}
	if (!kaq_comes_again(signal_number, info)) {
		raise(signal_number);
	}
}

static void kaq_install(int number, const char *complaint,
						void (*handler)(int, siginfo_t *, void *)) {
	struct sigaction action;
	memset(&action, 0, sizeof(action));
	action.sa_sigaction = handler;
	action.sa_flags = SA_SIGINFO | SA_ONSTACK;
	sigfillset(&action.sa_mask);
	if (sigaction(number, &action, nullptr) != 0) {
		perror(complaint);
		_exit(1);
	}
}

void setHandler(void (*handler)(int, siginfo_t *, void *)) {
	for (const auto &fatal : fatal_signals) {
		kaq_install(fatal.number, fatal.complaint, handler);
	}
}

static bool kaq_is_in_place(int number) {
	struct sigaction current;
	return sigaction(number, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) &&
		   current.sa_sigaction == catchit;
}

/* A signal stack that the thread already has is left in place. */
static void kaq_provide_signal_stack(void) {
	stack_t current;
	if (signal_stack || sigaltstack(nullptr, &current) != 0 || !(current.ss_flags & SS_DISABLE)) {
		return;
	}
	void *memory = mmap(nullptr, KAQ_SIGNAL_STACK_SIZE, PROT_READ | PROT_WRITE,
						MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	if (memory == MAP_FAILED) {
		return;
	}
	stack_t ours;
	memset(&ours, 0, sizeof(ours));
	ours.ss_sp = memory;
	ours.ss_size = KAQ_SIGNAL_STACK_SIZE;
	if (sigaltstack(&ours, nullptr) == 0) {
		signal_stack = memory;
	} else {
		munmap(memory, KAQ_SIGNAL_STACK_SIZE);
	}
}

void kaq_release_signal_stack(void) {
	stack_t current;
	if (!signal_stack) {
		return;
	}
	if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == signal_stack) {
		stack_t none;
		memset(&none, 0, sizeof(none));
		none.ss_flags = SS_DISABLE;
		sigaltstack(&none, nullptr);
	}
	munmap(signal_stack, KAQ_SIGNAL_STACK_SIZE);
	signal_stack = nullptr;
}

/* The first call of backtrace loads a library, which must not happen during a crash. */
static void kaq_prepare_backtrace(void) {
	static bool is_prepared;
	if (!is_prepared) {
		void *frame;
		backtrace(&frame, 1);
		is_prepared = true;
	}
}

void wrap_sethandler(void) {
	kaq_prepare_backtrace();
	kaq_provide_signal_stack();
	if (!is_installed) {
		for (auto &fatal : fatal_signals) {
			sigaction(fatal.number, nullptr, &fatal.before);
		}
		is_installed = true;
	}
	for (const auto &fatal : fatal_signals) {
		if (!kaq_is_in_place(fatal.number)) {
			kaq_install(fatal.number, fatal.complaint, catchit);
		}
	}
}

void kaq_remove_crash_handler(void) {
	for (auto &fatal : fatal_signals) {
		if (is_installed && kaq_is_in_place(fatal.number)) {
			sigaction(fatal.number, &fatal.before, nullptr);
		}
	}
	is_installed = false;
}

int addr2line(const void *address) {
	char command[KAQ_COMMAND_SIZE];
	printf("In kaq");
	fflush(stdout);
	snprintf(command, sizeof(command), "addr2line -f -i -C -e " KAQ_MODULE_FILE " %p", address);
	return system(command);
}
