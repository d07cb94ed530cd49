/*
 * The collector of the benchmarks: answers as fast as it can and keeps nothing. Its argument, if
 * there is one, is a browser snippet, which the answers bring along.
 *
 * Prints "monitored PORT unmonitored PORT data PORT" when ready: two status ports, one that
 * enables the instance and one that does not, and the data port. A line on standard input is
 * answered with "transactions N notices N bytes N asked N", the sums so far, the last one of the
 * bytes that came to the status ports; the end of standard input ends it.
 */
#include "listener.h"

#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static const char MONITORED[] = "{\"instance.id\":\"bench\",\"instance.status\":920,"
								"\"transaction.trace.sql.stacktrace.threshold\":3";
static const char UNMONITORED[] = "{\"instance.id\":\"bench\",\"instance.status\":0}";
static const char NOTICE[] = "message:";

static unsigned long long transactions;
static unsigned long long notices;
static unsigned long long bytes;
static unsigned long long asked;

static char buffer[1 << 20];
static char monitored[4096];

/* The request is one line; a reply that cannot be sent is the client's loss. */
static void answer_status(int listener, const char *reply) {
	int fd = accept(listener, nullptr, nullptr);
	if (fd < 0) {
		return;
	}
	ssize_t length;
	do {
		length = read(fd, buffer, sizeof buffer);
		asked += length > 0 ? (unsigned long long)length : 0;
	} while (length > 0 && buffer[length - 1] != '\n');
	(void)!send(fd, reply, strlen(reply), MSG_NOSIGNAL);
	close(fd);
}

static void take_data(int listener) {
	int fd = accept(listener, nullptr, nullptr);
	if (fd < 0) {
		return;
	}
	unsigned long long size = 0;
	bool is_notice = false;
	ssize_t length;
	while ((length = read(fd, buffer, sizeof buffer)) > 0) {
		if (size == 0) {
			is_notice = memcmp(buffer, NOTICE, strlen(NOTICE)) == 0;
		}
		size += (unsigned long long)length;
	}
	close(fd);
	if (is_notice) {
		notices++;
	} else if (size > 0) {
		transactions++;
		bytes += size;
	}
}

/* The snippet has nothing that JSON would have to escape. */
static bool make_answer(const char *snippet) {
	int length = snippet == nullptr
					 ? snprintf(monitored, sizeof monitored, "%s}", MONITORED)
					 : snprintf(monitored, sizeof monitored,
								"%s,\"webtransaction.rum.snippet\":\"%s\"}", MONITORED, snippet);
	return length > 0 && (size_t)length < sizeof monitored;
}

int main(int argc, char **argv) {
	int ports[3];
	struct pollfd wait[4] = {};
	if (!make_answer(argc > 1 ? argv[1] : nullptr)) {
		return 1;
	}
	for (int i = 0; i < 3; i++) {
		wait[i].fd = open_listener(&ports[i]);
		wait[i].events = POLLIN;
		if (wait[i].fd < 0) {
			return 1;
		}
	}
	wait[3].fd = STDIN_FILENO;
	wait[3].events = POLLIN;
	printf("monitored %d unmonitored %d data %d\n", ports[0], ports[1], ports[2]);
	fflush(stdout);
	while (poll(wait, 4, -1) >= 0) {
		if (wait[0].revents != 0) {
			answer_status(wait[0].fd, monitored);
		} else if (wait[1].revents != 0) {
			answer_status(wait[1].fd, UNMONITORED);
		} else if (wait[2].revents != 0) {
			take_data(wait[2].fd);
		} else if (wait[3].revents != 0) {
			char line[64];
			if (read(STDIN_FILENO, line, sizeof line) <= 0) {
				return 0;
			}
			printf("transactions %llu notices %llu bytes %llu asked %llu\n", transactions, notices,
				   bytes, asked);
			fflush(stdout);
		}
	}
	return 1;
}
