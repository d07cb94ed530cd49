/*
 * The terminal as a screen of its own that is drawn anew, until the user ends it. What was there
 * before is there again afterwards, also after Ctrl-C. One at a time.
 */
#pragma once

#include <signal.h>
#include <termios.h>

#include <chrono>
#include <string>

#include "util/unique_fd.h"

namespace kaq {

class LiveScreen {
public:
	/* Signals wait for wait() from now on, also in threads that are made later; the screen is taken
	 * by the first draw(). REQUIRES: the standard output is a terminal. */
	LiveScreen();
	~LiveScreen();
	LiveScreen(const LiveScreen &) = delete;
	LiveScreen &operator=(const LiveScreen &) = delete;

	/* Shows as many lines of the text as there is room for. */
	void draw(const std::string &text);
	/* Lines that there is room for. */
	static size_t height();

	/* Waits until the time is up or the terminal has another size; false if the user wants to end
	 * it: q, Ctrl-C, or a signal that ends processes. */
	bool wait(std::chrono::milliseconds time);

private:
	void enter();
	void leave();
	void suspend();

	bool is_entered_ = false;
	UniqueFd signals_;
	sigset_t mask_{}; /* as it was */
	bool has_keys_ = false;
	termios keys_{}; /* as they were */
};

} // namespace kaq
