#include "wire/receiver.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "util/kaq_clock.h"
#include "wire/client.h"

static const size_t READ_SIZE = 4096;
static const size_t GROWTH = 1024;

/* Bytes that are read without a block: a usual answer needs none but its own. */
static const size_t FIRST_CAPACITY = 2 * READ_SIZE;

/* One read that ends at the deadline: the count, 0 at the end of the answer, -1 for a failure. */
static ssize_t kaq_read_until(int fd, char *into, size_t room, uint64_t deadline) {
	for (;;) {
		uint64_t now = kaq_monotonic_ms();
		if (now >= deadline) {
			return -1;
		}
		ssize_t count = recv(fd, into, room, MSG_DONTWAIT);
		if (count >= 0 || (errno != EAGAIN && errno != EINTR)) {
			return count;
		}
		struct pollfd waiting = {fd, POLLIN, 0};
		if (poll(&waiting, 1, (int)(deadline - now)) < 0 && errno != EINTR) {
			return -1;
		}
	}
}

/* Sleeps until the answer is at its end or fills the room: a usual one is read by this call. What
 * has come when a signal or the time-out ends it counts as read. */
static ssize_t kaq_read_first(int fd, char *into, size_t room, uint64_t deadline) {
	struct timeval timeout = {KAQ_ANSWER_TIMEOUT_MS / 1000,
							  (suseconds_t)(KAQ_ANSWER_TIMEOUT_MS % 1000) * 1000};
	if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0) {
		ssize_t count = recv(fd, into, room, MSG_WAITALL);
		if (count >= 0 || (errno != EAGAIN && errno != EINTR)) {
			return count;
		}
	}
	return kaq_read_until(fd, into, room, deadline);
}

static char *kaq_empty_answer(void) {
	return (char *)calloc(1, 1);
}

/* What has been read: `used` bytes, always below `size`, which is at most `capacity`. */
struct answer_buffer {
	char *text;
	size_t used;
	size_t size;
	size_t capacity; /* bytes of the block; doubled, so that a long answer costs linear time */
	char *block;     /* what `text` is on the heap; null while it is the reader's own */
};

/* Makes room for the next read; 0 when memory is short. */
static int kaq_grow_buffer(answer_buffer *answer, kaq_grow_fn grow) {
	if (answer->size >= answer->used + READ_SIZE) {
		return 1;
	}
	answer->size += GROWTH;
	if (answer->size <= answer->capacity) {
		return 1;
	}
	if (answer->block == nullptr) {
		answer->block = (char *)malloc(answer->capacity);
		if (answer->block != nullptr) {
			memcpy(answer->block, answer->text, answer->used);
		}
	}
	char *grown =
		answer->block == nullptr ? nullptr : (char *)grow(answer->block, answer->capacity * 2);
	if (grown == nullptr) {
		client_error("Memory reallocation failed");
		return 0;
	}
	answer->block = grown;
	answer->text = grown;
	answer->capacity *= 2;
	return 1;
}

/* What has been read as a block of the heap. */
static char *kaq_take_answer_text(answer_buffer *answer) {
	if (answer->block == nullptr) {
		answer->block = (char *)malloc(answer->used + 1);
		if (answer->block == nullptr) {
			client_error("Memory allocation failed");
			return nullptr;
		}
		memcpy(answer->block, answer->text, answer->used);
	}
	answer->block[answer->used] = '\0';
	return answer->block;
}

char *kaq_read_answer(int fd, size_t limit, kaq_grow_fn grow) {
	uint64_t deadline = kaq_monotonic_ms() + KAQ_ANSWER_TIMEOUT_MS;
	char usual[FIRST_CAPACITY];
	answer_buffer answer = {usual, 0, READ_SIZE, FIRST_CAPACITY, nullptr};
	ssize_t count = kaq_read_first(fd, answer.text, READ_SIZE - 1, deadline);
	while (count != 0) {
		if (count < 0 || answer.used + (size_t)count > limit) {
			client_error("error read");
			answer.used = 0;
			break;
		}
		answer.used += (size_t)count;
		if (!kaq_grow_buffer(&answer, grow)) {
			free(answer.block);
			return nullptr;
		}
		size_t room = answer.size - answer.used - 1;
		count = kaq_read_until(fd, answer.text + answer.used, room < READ_SIZE ? room : READ_SIZE,
							   deadline);
	}
	return kaq_take_answer_text(&answer);
}

char *kaq_exchange(const char *address, int port, const char *request, size_t request_len) {
	char *answer = nullptr;
	int fd = kaq_open_socket();
	if (fd < 0) {
		client_error("error opening socket");
		return kaq_empty_answer();
	}
	if (kaq_connect(fd, address, port) != 0) {
		client_error("connect failed");
		answer = kaq_empty_answer();
	} else if (kaq_write_once(fd, request, request_len) < 0) {
		client_error("error on writing");
		answer = kaq_empty_answer();
	} else {
		answer = kaq_read_answer(fd, KAQ_ANSWER_MAX, realloc);
	}
	close(fd);
	return answer;
}
