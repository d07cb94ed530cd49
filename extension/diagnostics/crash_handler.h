/*
 * The log of a crash: on a fatal signal the process writes what hit it and its native call stack
 * into a file of its own, and then dies as it would have died without the extension.
 *
 * The handler uses no memory of the process heap and no stdio: either may be what broke.
 */
#pragma once

#include <signal.h>

/* Completed by the process id. Without the directory, which is not created, no log is written; nor
 * is one into anything but a regular file that has no other name. */
#define KAQ_CRASH_LOG "/opt/kaq/logs/crash/kaqcrash-%d.log"
#define KAQ_CRASH_FRAMES 25
/* The extension's own module, for addr2line(). */
#define KAQ_MODULE_FILE "/opt/kaq/lib/kaq20170718.so"

/* Puts the handler in place: at module start, and again at every request start for those signals
 * that another component has taken in between. A thread's first call gives it a stack of its own
 * for signals, so that a thread that has run out of stack leaves its log, too. */
void wrap_sethandler(void);

/* Installs a handler for the fatal signals. Ends the process when that fails. */
void setHandler(void (*handler)(int, siginfo_t *, void *));

/* Restores the handlers found at module start for those fatal signals that still have ours. At
 * module end: a signal must not run code that is about to be unloaded. */
void kaq_remove_crash_handler(void);

/* The handler: writes the log, then lets the process die of the signal. */
void catchit(int signal_number, siginfo_t *info, void *context);

/* Releases the calling thread's signal stack. At thread end. */
void kaq_release_signal_stack(void);

/* Prints where in the module's sources an address lies, for diagnosis by hand. Returns the status
 * of system(). Interface: kept for callers outside. */
int addr2line(const void *address);
