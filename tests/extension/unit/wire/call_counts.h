/* Counts the calls of the system that the units make. A program that includes this is linked with
 * --wrap for each of these functions. */
#pragma once

#include <atomic>
#include <poll.h>
#include <sys/socket.h>

struct call_counts {
	std::atomic<int> setsockopt;
	std::atomic<int> send;
	std::atomic<int> recv;
	std::atomic<int> poll;
};

static call_counts counted;

static inline void count_anew() {
	counted.setsockopt = 0;
	counted.send = 0;
	counted.recv = 0;
	counted.poll = 0;
}

extern "C" {
int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
ssize_t __real_send(int fd, const void *text, size_t len, int flags);
ssize_t __real_recv(int fd, void *into, size_t room, int flags);
int __real_poll(struct pollfd *waiting, nfds_t count, int timeout_ms);

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t size) {
	counted.setsockopt++;
	return __real_setsockopt(fd, level, name, value, size);
}

ssize_t __wrap_send(int fd, const void *text, size_t len, int flags) {
	counted.send++;
	return __real_send(fd, text, len, flags);
}

ssize_t __wrap_recv(int fd, void *into, size_t room, int flags) {
	counted.recv++;
	return __real_recv(fd, into, room, flags);
}

int __wrap_poll(struct pollfd *waiting, nfds_t count, int timeout_ms) {
	counted.poll++;
	return __real_poll(waiting, count, timeout_ms);
}
}
