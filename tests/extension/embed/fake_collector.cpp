#include "fake_collector.h"

#include <arpa/inet.h>
#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static const char MARKER[] = "marker of the test program";
static const char STOP[] = "the test program ends";
static const int DEADLINE_SECONDS = 30;

static int listen_somewhere(int *port) {
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t length = sizeof(address);
	if (fd < 0 || bind(fd, (sockaddr *)&address, length) != 0 || listen(fd, 128) != 0 ||
		getsockname(fd, (sockaddr *)&address, &length) != 0) {
		abort();
	}
	*port = ntohs(address.sin_port);
	return fd;
}

static void send_from_test(int port, const char *text) {
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_port = htons((uint16_t)port);
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	if (connect(fd, (sockaddr *)&address, sizeof(address)) == 0) {
		(void)!write(fd, text, strlen(text));
	}
	close(fd);
}

static std::string read_until(int fd, char end) {
	std::string bytes;
	char block[65536];
	timeval limit = {DEADLINE_SECONDS, 0};
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	while (end == '\0' || bytes.find(end) == std::string::npos) {
		ssize_t count = read(fd, block, sizeof(block));
		if (count <= 0) {
			break;
		}
		bytes.append(block, (size_t)count);
	}
	return bytes;
}

FakeCollector::FakeCollector()
	: status_fd_(listen_somewhere(&status_port_)), data_fd_(listen_somewhere(&data_port_)),
	  thread_([this] { serve(); }) {
}

FakeCollector::~FakeCollector() {
	send_from_test(data_port_, STOP);
	thread_.join();
	close(status_fd_);
	close(data_fd_);
}

void FakeCollector::answer(const std::string &reply) {
	std::lock_guard<std::mutex> lock(mutex_);
	reply_ = reply;
}

std::vector<Received> FakeCollector::take() {
	send_from_test(data_port_, MARKER);
	std::unique_lock<std::mutex> lock(mutex_);
	bool seen = changed_.wait_for(lock, std::chrono::seconds(DEADLINE_SECONDS),
								  [this] { return marker_seen_; });
	EXPECT_TRUE(seen) << "the fake collector hangs";
	marker_seen_ = false;
	std::vector<Received> taken;
	taken.swap(received_);
	return taken;
}

std::vector<std::string> FakeCollector::take_data() {
	std::vector<std::string> data;
	for (const Received &one : take()) {
		if (!one.is_status) {
			data.push_back(one.bytes);
		}
	}
	return data;
}

void FakeCollector::record(bool is_status, const std::string &bytes) {
	std::lock_guard<std::mutex> lock(mutex_);
	if (bytes == MARKER) {
		marker_seen_ = true;
		changed_.notify_all();
	} else {
		received_.push_back({is_status, bytes});
	}
}

void FakeCollector::serve_status(int connection) {
	record(true, read_until(connection, '\n'));
	std::string reply;
	{
		std::lock_guard<std::mutex> lock(mutex_);
		reply = reply_;
	}
	(void)!write(connection, reply.data(), reply.size());
	close(connection);
}

void FakeCollector::serve_data(int connection) {
	std::string bytes = read_until(connection, '\0');
	close(connection);
	record(false, bytes);
}

/* Data that waits goes first: what was sent before a status request is recorded before it. */
void FakeCollector::serve() {
	while (true) {
		pollfd ready[] = {{data_fd_, POLLIN, 0}, {status_fd_, POLLIN, 0}};
		poll(ready, 2, -1);
		if (ready[0].revents) {
			int connection = accept4(data_fd_, nullptr, nullptr, SOCK_CLOEXEC);
			serve_data(connection);
			std::lock_guard<std::mutex> lock(mutex_);
			if (!received_.empty() && received_.back().bytes == STOP) {
				return;
			}
		} else if (ready[1].revents) {
			serve_status(accept4(status_fd_, nullptr, nullptr, SOCK_CLOEXEC));
		}
	}
}

FakeCollector &collector() {
	static FakeCollector the_collector;
	return the_collector;
}

/* Written for the tests alone: it shares nothing with the extension's decoder. */
std::string decode_line(const std::string &line) {
	static const std::string alphabet =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
	if (line.empty() || line.find('\n') != line.size() - 1 || line.size() % 4 != 1) {
		ADD_FAILURE() << "not one Base64 line: " << line.substr(0, 200);
		return "";
	}
	std::string bytes;
	unsigned pending = 0;
	int bits = 0;
	size_t end = line.find_first_of("=\n");
	for (size_t i = 0; i < end; i++) {
		size_t value = alphabet.find(line[i]);
		if (value == std::string::npos) {
			ADD_FAILURE() << "no Base64 character at " << i;
			return "";
		}
		pending = (pending << 6 | (unsigned)value) & 0xffff;
		bits += 6;
		if (bits >= 8) {
			bits -= 8;
			bytes.push_back((char)(pending >> bits & 0xff));
		}
	}
	return bytes;
}
