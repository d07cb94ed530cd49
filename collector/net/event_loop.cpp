#include "net/event_loop.h"

#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kaq {
namespace {

constexpr size_t kEventsAtATime = 256;

UniqueFd checked(int fd, const char *what) {
	if (fd < 0) {
		throw std::system_error(errno, std::generic_category(), what);
	}
	return UniqueFd(fd);
}

} // namespace

EventLoop::EventLoop()
	: epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
	  wake_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
	watch(wake_.get(), EPOLLIN, this);
}

void EventLoop::on_ready(int fd, uint32_t) {
	uint64_t count;
	is_woken_ = read(fd, &count, sizeof count) > 0;
}

void EventLoop::watch(int fd, uint32_t events, ReadyHandler *handler) {
	epoll_event event{};
	event.events = events;
	event.data.fd = fd;
	if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
		throw std::system_error(errno, std::generic_category(), "epoll_ctl");
	}
	watched_[fd] = handler;
}

void EventLoop::change(int fd, uint32_t events) {
	epoll_event event{};
	event.events = events;
	event.data.fd = fd;
	epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::forget(int fd) {
	epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
	watched_.erase(fd);
}

void EventLoop::every(std::chrono::milliseconds period, std::function<void()> tick) {
	period_ = period;
	tick_ = std::move(tick);
}

void EventLoop::run() {
	auto next = std::chrono::steady_clock::now() + period_;
	while (!stopped_.load(std::memory_order_acquire)) {
		auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
			next - std::chrono::steady_clock::now());
		wait(left.count() > 0 ? static_cast<int>(left.count()) : 0);
		if (is_woken_ || std::chrono::steady_clock::now() >= next) {
			is_woken_ = false;
			next = std::chrono::steady_clock::now() + period_;
			if (tick_) {
				tick_();
			}
		}
	}
}

/* A descriptor that a callback has closed may already belong to somebody else when its event comes
 * up: the new owner is then called once for nothing, which a non-blocking read bears. */
void EventLoop::wait(int milliseconds) {
	std::array<epoll_event, kEventsAtATime> events;
	int count =
		epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), milliseconds);
	for (int i = 0; i < count; i++) {
		auto found = watched_.find(events[static_cast<size_t>(i)].data.fd);
		if (found != watched_.end()) {
			found->second->on_ready(found->first, events[static_cast<size_t>(i)].events);
		}
	}
}

void EventLoop::stop() {
	stopped_.store(true, std::memory_order_release);
	wake();
}

void EventLoop::wake() {
	uint64_t one = 1;
	[[maybe_unused]] ssize_t written = write(wake_.get(), &one, sizeof one);
}

} // namespace kaq
