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
#include <ucontext.h>
#include <unistd.h>

#define KAQ_CRASH_PATH_SIZE 256
#define KAQ_CRASH_LINE_SIZE 128
#define KAQ_SIGNAL_STACK_SIZE ((size_t)128 * 1024)
#define KAQ_COMMAND_SIZE 256

/* In the order in which the handler is installed and given up. `before` is what the first
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

/* A short write is not repeated: nobody could do anything about it. */
static void put_text(int fd, const char *text, size_t length) {
	ssize_t written = write(fd, text, length);
	(void)written;
}

/* For short texts. */
static void put_line(int fd, const char *format, ...) __attribute__((format(printf, 2, 3)));
static void put_line(int fd, const char *format, ...) {
	char line[KAQ_CRASH_LINE_SIZE];
	va_list values;
	va_start(values, format);
	int length = vsnprintf(line, sizeof(line), format, values);
	va_end(values);
	if (length > 0) {
		put_text(fd, line, (size_t)length);
	}
}

static unsigned instruction_pointer(const void *context) {
#ifdef __x86_64__
	return (unsigned)((const ucontext_t *)context)->uc_mcontext.gregs[REG_RIP];
#else
	(void)context;
	return 0;
#endif
}

static void put_name(int fd, const char *name) {
	put_text(fd, name, strlen(name));
}

static void put_symbol(int fd, const Dl_info *info, const struct link_map *map, const char *frame) {
	const char *base = (const char *)info->dli_saddr;
	if (!info->dli_sname) {
		base = (const char *)map->l_addr;
	}
	put_name(fd, info->dli_fname);
	put_name(fd, "(");
	put_name(fd, info->dli_sname ? info->dli_sname : "");
	if (base) {
		char sign = frame >= base ? '+' : '-';
		put_line(fd, "%c%#tx", sign, frame >= base ? frame - base : base - frame);
	}
	put_name(fd, ") ");
}

/* The texts of backtrace_symbols, which would take memory from the process heap. */
static void put_frame(int fd, const void *frame) {
	Dl_info info;
	struct link_map *map = NULL;
	put_name(fd, "Trace ");
	if (dladdr1(frame, &info, (void **)&map, RTLD_DL_LINKMAP) && info.dli_fname &&
		info.dli_fname[0]) {
		put_symbol(fd, &info, map, (const char *)frame);
	}
	put_line(fd, "[%p]\n", frame);
}

static void put_frames(int fd) {
	void *frames[KAQ_CRASH_FRAMES];
	int count = backtrace(frames, KAQ_CRASH_FRAMES);
	put_line(fd, "KAQ CRASH Backtrace messages size: %d\n", count);
	for (int i = 0; i < count; i++) {
		put_frame(fd, frames[i]);
	}
}

static void write_log(int fd, int signal_number, const siginfo_t *info, const void *context) {
	put_line(fd, "KAQ CRASH Signal %d received\n", signal_number);
	put_line(fd, "KAQ CRASH siginfo address=%p\n", info->si_addr);
	put_line(fd, "KAQ CRASH siginfo code =%d\n", info->si_code);
	put_line(fd, "KAQ CRASH address = %x\n", instruction_pointer(context));
	put_line(STDOUT_FILENO, "Program start addres = %d\n", 0);
	put_frames(fd);
}

/* A fault comes again when the instruction is run again. What somebody sent does not. */
static bool comes_again(int signal_number, const siginfo_t *info) {
	return info->si_code > 0 && signal_number != SIGSYS;
}

void catchit(int signal_number, siginfo_t *info, void *context) {
	char path[KAQ_CRASH_PATH_SIZE];
	snprintf(path, sizeof(path), KAQ_CRASH_LOG, (int)getpid());
	int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
	if (fd >= 0) {
		write_log(fd, signal_number, info, context);
		close(fd);
	}
	for (const auto &fatal : fatal_signals) {
		signal(fatal.number, SIG_DFL);
	}
	if (!comes_again(signal_number, info)) {
		raise(signal_number);
	}
}

void setHandler(void (*handler)(int, siginfo_t *, void *)) {
	struct sigaction action;
	memset(&action, 0, sizeof(action));
	action.sa_sigaction = handler;
	action.sa_flags = SA_SIGINFO | SA_ONSTACK;
	sigfillset(&action.sa_mask);
	for (const auto &fatal : fatal_signals) {
		if (sigaction(fatal.number, &action, NULL) != 0) {
			perror(fatal.complaint);
			_exit(1);
		}
	}
}

/* A stack that somebody else has given the thread is left to it. */
static void provide_signal_stack(void) {
	stack_t current;
	if (signal_stack || sigaltstack(NULL, &current) != 0 || !(current.ss_flags & SS_DISABLE)) {
		return;
	}
	void *memory = mmap(NULL, KAQ_SIGNAL_STACK_SIZE, PROT_READ | PROT_WRITE,
						MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	if (memory == MAP_FAILED) {
		return;
	}
	stack_t ours;
	memset(&ours, 0, sizeof(ours));
	ours.ss_sp = memory;
	ours.ss_size = KAQ_SIGNAL_STACK_SIZE;
	if (sigaltstack(&ours, NULL) == 0) {
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
	if (sigaltstack(NULL, &current) == 0 && current.ss_sp == signal_stack) {
		stack_t none;
		memset(&none, 0, sizeof(none));
		none.ss_flags = SS_DISABLE;
		sigaltstack(&none, NULL);
	}
	munmap(signal_stack, KAQ_SIGNAL_STACK_SIZE);
	signal_stack = NULL;
}

/* The first call of backtrace loads a library, for which a crash would be no time. */
static void prepare_backtrace(void) {
	static bool is_prepared;
	if (!is_prepared) {
		void *frame;
		backtrace(&frame, 1);
		is_prepared = true;
	}
}

void wrap_sethandler(void) {
	prepare_backtrace();
	provide_signal_stack();
	if (!is_installed) {
		for (auto &fatal : fatal_signals) {
			sigaction(fatal.number, NULL, &fatal.before);
		}
		is_installed = true;
	}
	setHandler(catchit);
}

void kaq_remove_crash_handler(void) {
	for (auto &fatal : fatal_signals) {
		struct sigaction current;
		if (is_installed && sigaction(fatal.number, NULL, &current) == 0 &&
			(current.sa_flags & SA_SIGINFO) && current.sa_sigaction == catchit) {
			sigaction(fatal.number, &fatal.before, NULL);
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
