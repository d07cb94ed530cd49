/*
 * The HTTP server of the benchmarks: answers every request on kept connections with the same few
 * headers and bytes, as fast as it can.
 *
 * Only what is asked for under "/never" is not answered. Prints "port PORT" when ready. A line on
 * standard input is answered with "requests N traced N": requests so far, and those of them that
 * had a traceparent. The end of standard input ends it.
 */
#include "listener.h"

#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#define MAX_CONNECTIONS 65536
#define REQUEST_ROOM 2048

static const char ANSWER[] = "HTTP/1.1 200 OK\r\n"
							 "Date: Fri, 15 May 2026 12:00:00 GMT\r\n"
							 "Server: bench\r\n"
							 "Content-Type: text/plain; charset=utf-8\r\n"
							 "Cache-Control: no-store\r\n"
							 "X-Request-Id: 7f3c9a1e5b2d4c60\r\n"
							 "Content-Length: 3\r\n"
							 "\r\n"
							 "ok\n";

/* What has arrived of a connection's next request. */
struct connection {
	size_t length;
	char text[REQUEST_ROOM];
};

static struct connection *connections[MAX_CONNECTIONS];
static unsigned long long requests;
static unsigned long long traced;
static int epoll;

static void watch(int fd) {
	struct epoll_event event = {};
	event.events = EPOLLIN;
	event.data.fd = fd;
	epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

static void take_connection(int listener) {
	int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
	if (fd < 0) {
		return;
	}
	if (fd >= MAX_CONNECTIONS) {
		close(fd);
		return;
	}
	int on = 1;
	setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
	if (!connections[fd]) {
		connections[fd] = new connection;
	}
	connections[fd]->length = 0;
	watch(fd);
}

/* Answers the whole requests in the text and keeps what follows them. */
static void answer(int fd, struct connection *c) {
	char *end;
	while ((end = (char *)memmem(c->text, c->length, "\r\n\r\n", 4))) {
		size_t size = (size_t)(end + 4 - c->text);
		requests++;
		traced += memmem(c->text, size, "\r\ntraceparent: 00-", 18) != nullptr;
		if (strncmp(c->text, "GET /never", 10) != 0) {
			(void)!send(fd, ANSWER, sizeof ANSWER - 1, MSG_NOSIGNAL);
		}
		memmove(c->text, end + 4, c->length - size);
		c->length -= size;
	}
}

static void take_bytes(int fd) {
	struct connection *c = connections[fd];
	ssize_t length = recv(fd, c->text + c->length, REQUEST_ROOM - c->length, 0);
	if (length <= 0) {
		close(fd);
		return;
	}
	c->length += (size_t)length;
	answer(fd, c);
}

static bool report() {
	char line[64];
	if (read(STDIN_FILENO, line, sizeof line) <= 0) {
		return false;
	}
	printf("requests %llu traced %llu\n", requests, traced);
	fflush(stdout);
	return true;
}

int main() {
	int port;
	int listener = open_listener(&port);
	epoll = epoll_create1(EPOLL_CLOEXEC);
	if (listener < 0 || epoll < 0) {
		return 1;
	}
	printf("port %d\n", port);
	fflush(stdout);
	watch(listener);
	watch(STDIN_FILENO);
	for (;;) {
		struct epoll_event events[256];
		int count = epoll_wait(epoll, events, 256, -1);
		for (int i = 0; i < count; i++) {
			int fd = events[i].data.fd;
			if (fd == listener) {
				take_connection(fd);
			} else if (fd != STDIN_FILENO) {
				take_bytes(fd);
			} else if (!report()) {
				return 0;
			}
		}
	}
}
