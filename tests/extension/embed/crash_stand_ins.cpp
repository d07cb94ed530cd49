#include "crash_stand_ins.h"

#include <errno.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdarg.h>
#include <stdlib.h>
#include <ucontext.h>
#include <unistd.h>

#include "diagnostics/crash_handler.h"

bool is_standing_in;
int refused_signal;
std::vector<installation> installed;
std::map<int, struct sigaction> in_place;
std::vector<int> reset;
std::vector<int> raised;
std::string opened_path;
int opened_flags;
std::string command_line;
int command_status;
char log_path[64];

extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_raise(int number);
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *old);
sighandler_t __real_signal(int number, sighandler_t handler);
int __real_system(const char *command);

int __wrap_open(const char *path, int flags, ...);
int __wrap_raise(int number);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old);
sighandler_t __wrap_signal(int number, sighandler_t handler);
int __wrap_system(const char *command);
}

int __wrap_open(const char *path, int flags, ...) {
	va_list values;
	va_start(values, flags);
	mode_t mode = flags & O_CREAT ? va_arg(values, mode_t) : 0;
	va_end(values);
	if (!log_path[0] || !strstr(path, "kaqcrash")) {
		return __real_open(path, flags, mode);
	}
	if (is_standing_in) {
		opened_path = path;
		opened_flags = flags;
	}
	return __real_open(log_path, flags, mode);
}

int __wrap_raise(int number) {
	if (!is_standing_in) {
		return __real_raise(number);
	}
	raised.push_back(number);
	return 0;
}

int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old) {
	if (!is_standing_in) {
		return __real_sigaction(number, action, old);
	}
	if (number == refused_signal) {
		errno = EINVAL;
		return -1;
	}
	if (old) {
		*old = in_place[number];
	}
	if (action) {
		installed.push_back({number, *action});
		in_place[number] = *action;
	}
	return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
	if (!is_standing_in) {
		return __real_signal(number, handler);
	}
	EXPECT_EQ(SIG_DFL, handler);
	reset.push_back(number);
	return SIG_DFL;
}

int __wrap_system(const char *command) {
	if (!is_standing_in) {
		return __real_system(command);
	}
	command_line = command;
	return command_status;
}

void CrashHandler::SetUp() {
	refused_signal = 0;
	installed.clear();
	in_place.clear();
	reset.clear();
	raised.clear();
	strcpy(log_path, "/tmp/kaq-crash-XXXXXX");
	close(mkstemp(log_path));
	is_standing_in = true;
	/* What an earlier test or the engine's start has installed is forgotten. */
	kaq_remove_crash_handler();
}

void CrashHandler::TearDown() {
	is_standing_in = false;
	unlink(log_path);
	log_path[0] = '\0';
}

std::string CrashHandler::log() {
	std::ostringstream text;
	text << std::ifstream(log_path).rdbuf();
	return text.str();
}

std::string CrashHandler::catches(int number, int code, void *address, uint64_t instruction) {
	siginfo_t info = {};
	info.si_signo = number;
	info.si_code = code;
	info.si_addr = address;
	ucontext_t context = {};
#ifdef __x86_64__
	context.uc_mcontext.gregs[REG_RIP] = (greg_t)instruction;
#endif
	testing::internal::CaptureStdout();
	catchit(number, &info, &context);
	return testing::internal::GetCapturedStdout();
}
