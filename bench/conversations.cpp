/*
 * The floor of a monitored request: a FastCGI program that serves no PHP, but has the two
 * conversations with the collector before its page.
 *
 *     conversations SOCKET
 *     conversations SOCKET STATUS_PORT DATA_PORT STATUS_BYTES DATA_BYTES
 *
 * Listens on the Unix socket, accepts one connection and serves it until it is closed. Without the
 * ports there are no conversations: what is left is what the page costs without them.
 */
#include "probes/conversations.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/un.h>

#define STDIN_RECORD 5
#define HEADER_SIZE 8

static const char ANSWER[] = "\1\6\0\1\0\x2e\1\0"
							 "Content-type: text/html; charset=UTF-8\r\n\r\n<p>\n\0"
							 "\1\3\0\1\0\x08\0\0\0\0\0\0\0\0\0\0";

static unsigned char request[65536];

[[noreturn]] static void fail(const char *what) {
	perror(what);
	exit(1);
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
	int fd = accepted(arguments[1]);
	while (read_request(fd)) {
		if (count == 6 && !(have_handshake(numbers[0], (size_t)numbers[2]) &&
							send_payload(numbers[1], (size_t)numbers[3]))) {
			fail("conversation");
		}
		if (write(fd, ANSWER, sizeof ANSWER - 1) < 0) {
			fail("write");
		}
	}
	return 0;
}
