#include "cli/live_screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kaq {
namespace {

/* Lines that are too long are cut by the terminal: wrapped ones would scroll the first away. */
constexpr const char *kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr const char *kLeave = "\033[?7h\033[?25h\033[?1049l";
constexpr const char *kHome = "\033[H";
constexpr const char *kClearLine = "\033[K";
constexpr const char *kClearBelow = "\033[J";
constexpr size_t kUsualHeight = 24;

void send(const std::string &text) {
	fwrite(text.data(), 1, text.size(), stdout);
	fflush(stdout);
}

} // namespace

LiveScreen::LiveScreen() {
	sigset_t set;
	sigemptyset(&set);
	for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP}) {
		sigaddset(&set, signal);
	}
	sigprocmask(SIG_BLOCK, &set, &mask_);
	signals_ = UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
	has_keys_ = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &keys_) == 0;
}

LiveScreen::~LiveScreen() {
	leave();
	sigprocmask(SIG_SETMASK, &mask_, nullptr);
}

void LiveScreen::enter() {
	if (has_keys_) {
		termios keys = keys_;
		keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
		tcsetattr(STDIN_FILENO, TCSANOW, &keys);
	}
	send(kEnter);
	is_entered_ = true;
}

void LiveScreen::leave() {
	if (!is_entered_) {
		return;
	}
	is_entered_ = false;
	send(kLeave);
	if (has_keys_) {
		tcsetattr(STDIN_FILENO, TCSANOW, &keys_);
	}
}

/* As Ctrl-Z does everywhere. */
void LiveScreen::suspend() {
	leave();
	raise(SIGSTOP);
	enter();
}

size_t LiveScreen::height() {
	winsize size{};
	return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row
																		   : kUsualHeight;
}

void LiveScreen::draw(const std::string &text) {
	if (!is_entered_) {
		enter();
	}
	std::string screen = kHome;
	size_t rows = height();
	for (size_t at = 0, row = 0; at < text.size() && row < rows; row++) {
		size_t end = std::min(text.find('\n', at), text.size());
		screen += (row > 0 ? "\r\n" : "") + text.substr(at, end - at) + kClearLine;
		at = end + 1;
	}
	send(screen + kClearBelow);
}

bool LiveScreen::wait(std::chrono::milliseconds time) {
	pollfd ready[] = {{signals_.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
	if (poll(ready, has_keys_ ? 2 : 1, static_cast<int>(time.count())) <= 0) {
		return true;
	}
	signalfd_siginfo signal{};
	if (read(signals_.get(), &signal, sizeof(signal)) == sizeof(signal)) {
		if (signal.ssi_signo == SIGTSTP) {
			suspend();
			return true;
		}
		return signal.ssi_signo == SIGWINCH;
	}
	char key = 0;
	ssize_t length = has_keys_ && ready[1].revents != 0 ? read(STDIN_FILENO, &key, 1) : 1;
	if (length <= 0) {
		has_keys_ = false; /* nobody types any more */
	}
	return key != 'q' && key != 'Q';
}

} // namespace kaq
