/* When the crash handler is in place, and what it leaves behind. */
#include "crash_stand_ins.h"

#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "diagnostics/crash_handler.h"

/* Installation. */

TEST_F(CrashHandler, GoesInForTheFiveSignalsInOrder) {
	setHandler(catchit);
	std::vector<int> numbers;
	for (const installation &one : installed) {
		numbers.push_back(one.number);
		EXPECT_EQ(catchit, one.action.sa_sigaction);
		EXPECT_EQ(SA_SIGINFO | SA_ONSTACK, one.action.sa_flags);
	}
	EXPECT_EQ(in_order, numbers);
}

TEST_F(CrashHandler, BlocksAllSignalsWhileItRuns) {
	setHandler(catchit);
	ASSERT_EQ(5u, installed.size());
	sigset_t all;
	sigfillset(&all);
	for (const installation &one : installed) {
		for (int number = 1; number < SIGRTMAX; number++) {
			EXPECT_EQ(sigismember(&all, number), sigismember(&one.action.sa_mask, number));
		}
	}
}

static void somebody_elses(int) {
}

static struct sigaction action_of_somebody_else() {
	struct sigaction action = {};
	action.sa_handler = somebody_elses;
	action.sa_flags = SA_RESTART;
	return action;
}

TEST_F(CrashHandler, StaysAsItIsWhereItIsInPlace) {
	wrap_sethandler();
	EXPECT_EQ(5u, installed.size());
	wrap_sethandler();
	EXPECT_EQ(5u, installed.size());
}

TEST_F(CrashHandler, GoesBackForTheSignalsThatSomebodyElseHasTaken) {
	for (int number : in_order) {
		wrap_sethandler();
		installed.clear();
		in_place[number] = action_of_somebody_else();
		wrap_sethandler();
		ASSERT_EQ(1u, installed.size()) << number;
		EXPECT_EQ(number, installed[0].number);
		EXPECT_EQ(catchit, installed[0].action.sa_sigaction);
		EXPECT_EQ(SA_SIGINFO | SA_ONSTACK, installed[0].action.sa_flags);
	}
}

TEST_F(CrashHandler, GoesBackWhereADefaultIsInPlace) {
	wrap_sethandler();
	installed.clear();
	in_place.clear();
	wrap_sethandler();
	std::vector<int> numbers;
	for (const installation &one : installed) {
		numbers.push_back(one.number);
	}
	EXPECT_EQ(in_order, numbers);
}

/* Removal. */

TEST_F(CrashHandler, GivesTheSignalsBackToWhomTheyBelonged) {
	in_place[SIGILL] = action_of_somebody_else();
	wrap_sethandler();
	wrap_sethandler();
	installed.clear();
	kaq_remove_crash_handler();
	std::vector<int> numbers;
	for (const installation &one : installed) {
		numbers.push_back(one.number);
		EXPECT_EQ(one.number == SIGILL ? somebody_elses : SIG_DFL, one.action.sa_handler);
		EXPECT_EQ(one.number == SIGILL ? SA_RESTART : 0, one.action.sa_flags);
	}
	EXPECT_EQ(in_order, numbers);
}

TEST_F(CrashHandler, LeavesASignalThatSomebodyElseHasTaken) {
	wrap_sethandler();
	in_place[SIGABRT] = action_of_somebody_else();
	installed.clear();
	kaq_remove_crash_handler();
	EXPECT_EQ(4u, installed.size());
	EXPECT_EQ(somebody_elses, in_place[SIGABRT].sa_handler);
}

TEST_F(CrashHandler, HandlerThatCameLaterIsNotGivenBack) {
	wrap_sethandler();
	in_place[SIGFPE] = action_of_somebody_else();
	wrap_sethandler();
	kaq_remove_crash_handler();
	EXPECT_EQ(SIG_DFL, in_place[SIGFPE].sa_handler);
}

TEST_F(CrashHandler, IsRemovedOnlyWhereItIsInstalled) {
	kaq_remove_crash_handler();
	wrap_sethandler();
	kaq_remove_crash_handler();
	installed.clear();
	kaq_remove_crash_handler();
	EXPECT_TRUE(installed.empty());
}

TEST_F(CrashHandler, LooksAgainAfterARemoval) {
	wrap_sethandler();
	kaq_remove_crash_handler();
	in_place[SIGSYS] = action_of_somebody_else();
	wrap_sethandler();
	kaq_remove_crash_handler();
	EXPECT_EQ(somebody_elses, in_place[SIGSYS].sa_handler);
}

TEST_F(CrashHandler, AnyOtherHandlerCanBePutIn) {
	setHandler([](int, siginfo_t *, void *) {});
	ASSERT_EQ(5u, installed.size());
	EXPECT_NE(catchit, installed[0].action.sa_sigaction);
}

static void install_without(int number) {
	atexit([] { _exit(7); });
	refused_signal = number;
	setHandler(catchit);
}

TEST_F(CrashHandler, RefusedInstallationEndsTheProcessAtOnce) {
	const char *names[] = {"SIGFPE", "SIGSEGV", "SIGILL", "SIGABRT", "SIGSYS"};
	for (size_t i = 0; i < in_order.size(); i++) {
		EXPECT_EXIT(install_without(in_order[i]), ::testing::ExitedWithCode(1),
					std::string("^sigusr: sigaction ") + names[i] + ": Invalid argument\n$");
	}
}

/* Afterwards. */

TEST_F(CrashHandler, DefaultsAreBackInOrder) {
	catches(SIGILL, ILL_ILLOPN);
	EXPECT_EQ(in_order, reset);
}

TEST_F(CrashHandler, FaultComesAgainByItself) {
	catches(SIGSEGV, SEGV_MAPERR);
	catches(SIGSEGV, SI_KERNEL);
	catches(SIGFPE, FPE_INTDIV);
	catches(SIGILL, ILL_ILLOPN);
	EXPECT_TRUE(raised.empty());
}

TEST_F(CrashHandler, WhatDoesNotComeAgainIsSentAgain) {
	catches(SIGSEGV, SI_USER);
	catches(SIGABRT, SI_TKILL);
	catches(SIGFPE, SI_QUEUE);
	catches(SIGSYS, 1);
	EXPECT_EQ((std::vector<int>{SIGSEGV, SIGABRT, SIGFPE, SIGSYS}), raised);
}

/* The signal stack. */

static stack_t signal_stack_of_thread(void) {
	stack_t stack = {};
	sigaltstack(nullptr, &stack);
	return stack;
}

/* A thread without a signal stack, whatever a sanitizer gave it. */
static void in_thread(void (*work)(void)) {
	pthread_t thread;
	auto start = [](void *given) -> void * {
		stack_t before = signal_stack_of_thread();
		stack_t none = {};
		none.ss_flags = SS_DISABLE;
		sigaltstack(&none, nullptr);
		((void (*)(void))given)();
		sigaltstack(&before, nullptr);
		return nullptr;
	};
	ASSERT_EQ(0, pthread_create(&thread, nullptr, start, (void *)work));
	pthread_join(thread, nullptr);
}

static bool is_mapped(void *page) {
	unsigned char residence[64];
	return mincore(page, 4096, residence) == 0;
}

TEST_F(CrashHandler, ThreadGetsOneSignalStackAndGivesItBack) {
	in_thread([] {
		wrap_sethandler();
		stack_t given = signal_stack_of_thread();
		EXPECT_EQ(0, given.ss_flags & SS_DISABLE);
		EXPECT_LE(128u * 1024, given.ss_size);
		wrap_sethandler();
		EXPECT_EQ(given.ss_sp, signal_stack_of_thread().ss_sp);
		EXPECT_TRUE(is_mapped(given.ss_sp));
		kaq_release_signal_stack();
		EXPECT_TRUE(signal_stack_of_thread().ss_flags & SS_DISABLE);
		EXPECT_FALSE(is_mapped(given.ss_sp));
		kaq_release_signal_stack();
	});
}

TEST_F(CrashHandler, SignalStackOfSomebodyElseIsLeftAlone) {
	in_thread([] {
		static char memory[64 * 1024];
		stack_t theirs = {};
		theirs.ss_sp = memory;
		theirs.ss_size = sizeof(memory);
		ASSERT_EQ(0, sigaltstack(&theirs, nullptr));
		wrap_sethandler();
		EXPECT_EQ(memory, signal_stack_of_thread().ss_sp);
		kaq_release_signal_stack();
		EXPECT_EQ(memory, signal_stack_of_thread().ss_sp);
		EXPECT_EQ(0, signal_stack_of_thread().ss_flags & SS_DISABLE);
	});
}

static volatile int bottomless = 1;

__attribute__((noinline)) static int use_up_stack(int depth) {
	volatile char frame[512];
	frame[0] = (char)depth;
	return bottomless ? use_up_stack(depth + 1) + frame[0] : 0;
}

TEST_F(CrashHandler, ThreadThatRunsOutOfStackLeavesItsLog) {
	is_standing_in = false;
	pid_t child = fork();
	if (child == 0) {
		in_thread([] {
			wrap_sethandler();
			use_up_stack(0);
		});
		_exit(0);
	}
	int status;
	ASSERT_EQ(child, waitpid(child, &status, 0));
	EXPECT_TRUE(WIFSIGNALED(status));
	EXPECT_EQ(SIGSEGV, WTERMSIG(status));
	EXPECT_EQ(0u, log().find("KAQ CRASH Signal 11 received\n"));
	EXPECT_NE(std::string::npos, log().find("KAQ CRASH Backtrace messages size: 25\n"));
}

/* For diagnosis by hand. */

TEST_F(CrashHandler, AddressIsLookedUpWithTheToolOfThatName) {
	command_status = 256;
	testing::internal::CaptureStdout();
	EXPECT_EQ(256, addr2line((void *)0x1f2e));
	EXPECT_EQ("In kaq", testing::internal::GetCapturedStdout());
	EXPECT_EQ("addr2line -f -i -C -e /opt/kaq/lib/kaq20170718.so 0x1f2e", command_line);
}

/* Threads of a server come and go: a request may be the first in its thread. */
class SignalStackOfARequest : public EngineTest {};

TEST_F(SignalStackOfARequest, IsThereWhenTheRequestHasStarted) {
	kaq_release_signal_stack();
	stack_t before = signal_stack_of_thread();
	stack_t none = {};
	none.ss_flags = SS_DISABLE;
	sigaltstack(&none, nullptr);
	start_request();
	EXPECT_EQ(0, signal_stack_of_thread().ss_flags & SS_DISABLE);
	end_request();
	kaq_release_signal_stack();
	EXPECT_TRUE(signal_stack_of_thread().ss_flags & SS_DISABLE);
	sigaltstack(&before, nullptr);
}
