/* An HTTP server on loopback that takes what is posted and answers as it is told. A thread for each
 * connection asks what to answer. */
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kaq_test {

/* Whether it does before long; what was given as an answer is noted a moment later. */
template <typename Condition> bool comes_true(Condition condition) {
	auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
	while (std::chrono::steady_clock::now() < deadline) {
		if (condition()) {
			return true;
		}
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	return false;
}

struct Posted {
	std::string head; /* the request's first line and headers */
	std::string body; /* not compressed any more */
	int connection = 0;
};

struct ReceiverAnswer {
	int status = 200;
	std::string headers = {}; /* lines with their ends */
	std::string body = {};
	bool is_broken_off = false; /* the connection ends instead */
	bool has_no_head = false;   /* the body is all that is sent */
};

inline std::string gunzip(const std::string &bytes) {
	z_stream stream = {};
	std::string text;
	inflateInit2(&stream, 15 + 16);
	stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
	stream.avail_in = static_cast<uInt>(bytes.size());
	int result = Z_OK;
	while (result == Z_OK) {
		char room[16384];
		stream.next_out = reinterpret_cast<Bytef *>(room);
		stream.avail_out = sizeof(room);
		result = inflate(&stream, Z_NO_FLUSH);
		text.append(room, sizeof(room) - stream.avail_out);
	}
	inflateEnd(&stream);
	if (result != Z_STREAM_END) {
		throw std::runtime_error("the body is no gzip");
	}
	return text;
}

class Receiver {
public:
	using Handler = std::function<ReceiverAnswer(const Posted &)>;

	explicit Receiver(Handler handler) : handler_(std::move(handler)) {
		listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		int yes = 1;
		setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
		sockaddr_in address = {};
		address.sin_family = AF_INET;
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		socklen_t size = sizeof(address);
		if (bind(listener_, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
			listen(listener_, 16) != 0) {
			throw std::runtime_error("no port");
		}
		getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
		port_ = ntohs(address.sin_port);
		thread_ = std::thread([this] { run(); });
	}
	~Receiver() {
		is_ending_ = true;
		thread_.join();
		close(listener_);
	}

	std::string url(const std::string &path = "") const {
		return "http://127.0.0.1:" + std::to_string(port_) + path;
	}
	int connections() const {
		return connections_;
	}

private:
	/* False when the test ends, or the time is up. */
	bool is_ready(int fd) const {
		for (int i = 0; i < 600 && !is_ending_; i++) {
			pollfd one = {fd, POLLIN, 0};
			if (poll(&one, 1, 50) > 0) {
				return true;
			}
		}
		return false;
	}

	void run() {
		while (!is_ending_) {
			if (!is_ready(listener_)) {
				continue;
			}
			int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
			int number = ++connections_;
			serving_.emplace_back([this, connection, number] {
				while (serve(connection, number)) {
				}
				close(connection);
			});
		}
		for (std::thread &each : serving_) {
			each.join();
		}
	}

	bool serve(int connection, int number) {
		std::string bytes;
		size_t end = std::string::npos;
		size_t whole = std::string::npos;
		while (bytes.size() < whole) {
			char room[65536];
			ssize_t count = is_ready(connection) ? recv(connection, room, sizeof(room), 0) : 0;
			if (count <= 0) {
				return false;
			}
			bytes.append(room, static_cast<size_t>(count));
			if (end == std::string::npos) {
				end = bytes.find("\r\n\r\n");
				size_t length = bytes.find("Content-Length: ");
				if (end != std::string::npos && length != std::string::npos) {
					whole = end + 4 + std::stoul(bytes.substr(length + 16));
				}
			}
		}
		ReceiverAnswer answer =
			handler_({bytes.substr(0, end + 2), gunzip(bytes.substr(end + 4)), number});
		if (answer.is_broken_off) {
			return false;
		}
		std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Some\r\n" +
						   answer.headers +
						   "Content-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n";
		std::string text = (answer.has_no_head ? "" : head) + answer.body;
		return send(connection, text.data(), text.size(), MSG_NOSIGNAL) ==
				   static_cast<ssize_t>(text.size()) &&
			   !answer.has_no_head;
	}

	const Handler handler_;
	int listener_ = -1;
	uint16_t port_ = 0;
	std::atomic<bool> is_ending_{false};
	std::atomic<int> connections_{0};
	std::vector<std::thread> serving_; /* of the thread */
	std::thread thread_;
};

} // namespace kaq_test
