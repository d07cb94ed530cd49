/* Peers on the loopback interface for the transport tests. */
#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <dirent.h>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

static inline sockaddr_in loopback_address(int port) {
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_port = htons((uint16_t)port);
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	return address;
}

/* Listening socket on a free port of 127.0.0.1. */
struct Listener {
	int fd = -1;
	int port = 0;

	explicit Listener(int backlog = 16) {
		fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		sockaddr_in address = loopback_address(0);
		socklen_t size = sizeof address;
		EXPECT_EQ(0, bind(fd, (sockaddr *)&address, size));
		EXPECT_EQ(0, listen(fd, backlog));
		EXPECT_EQ(0, getsockname(fd, (sockaddr *)&address, &size));
		port = ntohs(address.sin_port);
	}
	~Listener() {
		close();
	}
	void close() {
		if (fd >= 0) {
			::close(fd);
		}
		fd = -1;
	}
};

/* Accepts one connection in a thread and hands it to `serve`, which need not close it. */
struct Peer {
	Listener listener;
	std::thread thread;
	std::atomic<bool> accepted{false};

	explicit Peer(std::function<void(int)> serve) {
		thread = std::thread([this, serve] {
			int fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
			accepted = true;
			if (fd >= 0) {
				serve(fd);
				::close(fd);
			}
		});
	}
	~Peer() {
		/* A connection may still wait to be accepted; without one the accept is woken up. */
		for (int i = 0; i < 2000 && !accepted; i++) {
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		shutdown(listener.fd, SHUT_RDWR);
		thread.join();
	}
	int port() const {
		return listener.port;
	}
};

/* A port that nothing listens on: bound just now and given back. */
static inline int closed_port() {
	Listener listener;
	return listener.port;
}

static inline std::string read_to_end(int fd) {
	std::string all;
	char piece[65536];
	ssize_t count;
	while ((count = recv(fd, piece, sizeof piece, 0)) > 0) {
		all.append(piece, (size_t)count);
	}
	return all;
}

static inline std::string read_line(int fd) {
	std::string line;
	char c;
	while (recv(fd, &c, 1, 0) == 1) {
		line += c;
		if (c == '\n') {
			break;
		}
	}
	return line;
}

static inline bool write_all(int fd, const std::string &text) {
	size_t done = 0;
	while (done < text.size()) {
		ssize_t count = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
		if (count <= 0) {
			return false;
		}
		done += (size_t)count;
	}
	return true;
}

/* Closing then sends a reset instead of an orderly end. */
static inline void reset_on_close(int fd) {
	linger at_once = {1, 0};
	setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

static inline int open_descriptors() {
	DIR *list = opendir("/proc/self/fd");
	int count = 0;
	while (readdir(list) != nullptr) {
		count++;
	}
	closedir(list);
	return count;
}

struct Stopwatch {
	std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();

	long ms() const {
		return (long)std::chrono::duration_cast<std::chrono::milliseconds>(
				   std::chrono::steady_clock::now() - start)
			.count();
	}
};

/*
 * Runs `run`, which returns the milliseconds that it took, up to five times until it takes less
 * than `limit`: what else the machine does can only lengthen a run. None may take less than
 * `least`.
 */
static inline void expect_duration(long least, long limit, const std::function<long()> &run) {
	long taken = limit;
	for (int i = 0; i < 5 && taken >= limit; i++) {
		taken = run();
		EXPECT_GE(taken, least);
	}
	EXPECT_LT(taken, limit);
}

/* Runs `use` with a port that nothing listens on: it does not wait for anything. */
static inline void expect_no_wait(const std::function<void(int)> &use) {
	expect_duration(0, 200, [&use] {
		int port = closed_port();
		Stopwatch watch;
		use(port);
		return watch.ms();
	});
}

/* While it lives this process can open no more descriptors than it has. */
struct NoFreeDescriptor {
	rlimit old;

	NoFreeDescriptor() {
		int lowest = dup(STDIN_FILENO);
		EXPECT_GE(lowest, 0);
		::close(lowest);
		EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
		rlimit none = {(rlim_t)lowest, old.rlim_max};
		EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
	}
	~NoFreeDescriptor() {
		setrlimit(RLIMIT_NOFILE, &old);
	}
};

/* Two connected sockets. */
struct SocketPair {
	int ours = -1;
	int theirs = -1;

	explicit SocketPair(int type = SOCK_STREAM) {
		int pair[2];
		EXPECT_EQ(0, socketpair(AF_UNIX, type, 0, pair));
		ours = pair[0];
		theirs = pair[1];
	}
	~SocketPair() {
		close_ours();
		close_theirs();
	}
	void close_ours() {
		if (ours >= 0) {
			::close(ours);
		}
		ours = -1;
	}
	void close_theirs() {
		if (theirs >= 0) {
			::close(theirs);
		}
		theirs = -1;
	}
	/* Writes until nothing more fits; from then on a write waits until something is read. */
	void fill() {
		char filler[4096] = {};
		while (send(ours, filler, sizeof filler, MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
		}
	}
};

/* Text without NUL bytes in which every position can be told from its neighbours. */
static inline std::string pattern(size_t length) {
	std::string text(length, ' ');
	for (size_t i = 0; i < length; i++) {
		text[i] = (char)('!' + (i * 7 + i / 251) % 90);
	}
	return text;
}

/* Interrupts the thread that makes it with a signal every few milliseconds while it lives. */
struct Interruptions {
	std::atomic<bool> stop{false};
	std::atomic<int> sent{0};
	std::thread thread;
	struct sigaction old;

	Interruptions() {
		struct sigaction action = {};
		action.sa_handler = [](int) {};
		sigaction(SIGUSR1, &action, &old);
		pthread_t target = pthread_self();
		thread = std::thread([this, target] {
			while (!stop) {
				pthread_kill(target, SIGUSR1);
				sent++;
				std::this_thread::sleep_for(std::chrono::milliseconds(3));
			}
		});
	}
	~Interruptions() {
		stop = true;
		thread.join();
		sigaction(SIGUSR1, &old, nullptr);
	}
};
