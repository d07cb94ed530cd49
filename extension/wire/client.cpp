#include "wire/client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "util/kaq_clock.h"
#include "util/kaq_strings.h"

static const char LOOPBACK[] = "127.0.0.1";

void client_error(const char *message) {
	(void)message;
}

void sender_error(const char *message) {
	(void)message;
}

int kaq_last_ipv4(const struct addrinfo *list, char dest[KAQ_ADDRESS_SIZE]) {
	int missing = 1;
	for (; list != nullptr; list = list->ai_next) {
		if (list->ai_family == AF_INET && list->ai_addr != nullptr) {
			const struct sockaddr_in *address = (const struct sockaddr_in *)list->ai_addr;
			inet_ntop(AF_INET, &address->sin_addr, dest, KAQ_ADDRESS_SIZE);
			missing = 0;
		}
	}
	return missing;
}

int hostname_to_ip(const char *name, char dest[KAQ_ADDRESS_SIZE]) {
	struct addrinfo hints;
	memset(&hints, 0, sizeof hints);
	hints.ai_family = AF_UNSPEC;
	hints.ai_socktype = SOCK_STREAM;
	memset(dest, 0, KAQ_ADDRESS_SIZE);
	int missing = 1;
	struct addrinfo *list = nullptr;
	if (getaddrinfo(name, nullptr, &hints, &list) == 0) {
		missing = kaq_last_ipv4(list, dest);
		freeaddrinfo(list);
	}
	if (missing) {
		kaq_copy_bounded(dest, KAQ_ADDRESS_SIZE, LOOPBACK);
	}
	return missing;
}

void kaq_collector_address(const char *ip, const char *hostname, char dest[KAQ_ADDRESS_SIZE]) {
	if (ip != nullptr && *ip != '\0') {
		kaq_copy_bounded(dest, KAQ_ADDRESS_SIZE, ip);
	} else if (hostname != nullptr && *hostname != '\0') {
		hostname_to_ip(hostname, dest);
	} else {
		kaq_copy_bounded(dest, KAQ_ADDRESS_SIZE, LOOPBACK);
	}
}

int kaq_open_socket(void) {
	return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

/* Limits the time of the next connect or send; the system keeps count of it within one call. */
static int kaq_bound_next_call(int fd, int timeout_ms) {
	struct timeval timeout = {timeout_ms / 1000, (suseconds_t)(timeout_ms % 1000) * 1000};
	return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

static int kaq_remaining_ms(uint64_t deadline) {
	uint64_t now = kaq_monotonic_ms();
	return now >= deadline ? 0 : (int)(deadline - now);
}

/* A connect that a signal interrupts goes on in the background. */
static int kaq_await_connected(int fd, uint64_t deadline) {
	struct pollfd waiting = {fd, POLLOUT, 0};
	int ready;
	do {
		ready = poll(&waiting, 1, kaq_remaining_ms(deadline));
	} while (ready < 0 && errno == EINTR);
	int failure = 0;
	socklen_t size = sizeof failure;
	if (ready <= 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0) {
		return -1;
	}
	return failure == 0 ? 0 : -1;
}

int kaq_connect(int fd, const char *address, int port) {
	struct sockaddr_in collector;
	memset(&collector, 0, sizeof collector);
	collector.sin_family = AF_INET;
	collector.sin_port = htons((uint16_t)port);
	if (strcmp(address, LOOPBACK) == 0) {
		collector.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	} else {
		/* An address that cannot be parsed leaves 0.0.0.0 in place. */
		inet_pton(AF_INET, address, &collector.sin_addr);
	}
	uint64_t deadline = kaq_monotonic_ms() + KAQ_CONNECT_TIMEOUT_MS;
	if (kaq_bound_next_call(fd, KAQ_CONNECT_TIMEOUT_MS) != 0) {
		return -1;
	}
	if (connect(fd, (const struct sockaddr *)&collector, sizeof collector) == 0) {
		return 0;
	}
	return errno == EINTR ? kaq_await_connected(fd, deadline) : -1;
}

/* Writes what the system does not take at once. */
static ssize_t kaq_write_rest(int fd, const char *text, size_t len, uint64_t deadline) {
	ssize_t taken = -1;
	int left = KAQ_WRITE_TIMEOUT_MS;
	do {
		if (kaq_bound_next_call(fd, left) != 0) {
			return -1;
		}
		taken = send(fd, text, len, MSG_NOSIGNAL);
		left = kaq_remaining_ms(deadline);
	} while (taken < 0 && errno == EINTR && left > 0);
	return taken;
}

/* A usual text goes at once, which needs no time-out. */
ssize_t kaq_write_once(int fd, const char *text, size_t len) {
	ssize_t at_once = send(fd, text, len, MSG_NOSIGNAL | MSG_DONTWAIT);
	if (at_once == (ssize_t)len || (at_once < 0 && errno != EAGAIN && errno != EINTR)) {
		return at_once;
	}
	uint64_t deadline = kaq_monotonic_ms() + KAQ_WRITE_TIMEOUT_MS;
	size_t taken = at_once < 0 ? 0 : (size_t)at_once;
	ssize_t rest = kaq_write_rest(fd, text + taken, len - taken, deadline);
	if (taken == 0) {
		return rest;
	}
	return rest < 0 ? at_once : at_once + rest;
}
