/*
 * The floor of a monitored request: a FastCGI program that serves no PHP, but has the two
 * conversations with the collector around its page, each with the fewest system calls there are and
 * no bound in time.
 *
 *     conversations SOCKET
 *     conversations SOCKET STATUS_PORT DATA_PORT STATUS_BYTES DATA_BYTES
 *
 * Listens on the Unix socket, accepts one connection and serves it until it is closed. Without the
 * ports there are no conversations: what is left is what the page costs without them.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define STDIN_RECORD 5
#define HEADER_SIZE 8

static const char ANSWER[] = "\1\6\0\1\0\x2e\1\0"
							 "Content-type: text/html; charset=UTF-8\r\n\r\n<p>\n\0"
							 "\1\3\0\1\0\x08\0\0\0\0\0\0\0\0\0\0";

static unsigned char request[65536];
static char document[1 << 20];
static char reply[4096];

[[noreturn]] static void fail(const char *what) {
	perror(what);
	exit(1);
}

static int connected(int port) {
	struct sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_port = htons((uint16_t)port);
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0) {
		fail("connect");
	}
	return fd;
}

/* Both documents are a line, whose text the collector of the benchmarks does not look at. */
static void say(int fd, size_t size) {
	document[size - 1] = '\n';
	if (send(fd, document, size, MSG_NOSIGNAL) != (ssize_t)size) {
		fail("send");
	}
	document[size - 1] = 'x';
}

static void handshake(int port, size_t size) {
	int fd = connected(port);
	say(fd, size);
	while (recv(fd, reply, sizeof reply, MSG_WAITALL) > 0) {
	}
	close(fd);
}

static void payload(int port, size_t size) {
	int fd = connected(port);
	say(fd, size);
	close(fd);
}

/* Reads up to the empty record that ends a request; 0 when the connection is closed. */
static int read_request(int fd) {
	size_t used = 0;
	size_t at = 0;
	for (;;) {
		ssize_t count = read(fd, request + used, sizeof request - used);
		if (count <= 0) {
			return 0;
		}
		used += (size_t)count;
		while (used - at >= HEADER_SIZE) {
			size_t size = (size_t)request[at + 4] << 8 | request[at + 5];
			if (request[at + 1] == STDIN_RECORD && size == 0) {
				return 1;
			}
			at += HEADER_SIZE + size + request[at + 6];
		}
	}
}

static int accepted(const char *path) {
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
	unlink(path);
	int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) != 0 ||
		listen(listener, 1) != 0) {
		fail("listen");
	}
	return accept(listener, nullptr, nullptr);
}

int main(int count, char **arguments) {
	if (count != 2 && count != 6) {
		fprintf(stderr, "usage: conversations SOCKET [PORT PORT BYTES BYTES]\n");
		return 2;
	}
	int numbers[4] = {};
	for (int i = 2; i < count; i++) {
		numbers[i - 2] = atoi(arguments[i]);
	}
	memset(document, 'x', sizeof document);
	int fd = accepted(arguments[1]);
	while (read_request(fd)) {
		if (count == 6) {
			handshake(numbers[0], (size_t)numbers[2]);
			payload(numbers[1], (size_t)numbers[3]);
		}
		if (write(fd, ANSWER, sizeof ANSWER - 1) < 0) {
			fail("write");
		}
	}
	return 0;
}
