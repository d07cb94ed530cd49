/*
 * Load for a collector, and the floor that it is measured against.
 *
 *     collector_load echo                                    a bare epoll loop: answers each line
 *     collector_load handshakes PORT COUNT PAUSE_US          one client, one after the other
 *     collector_load payloads PORT RATE SECONDS FILE         a line of the file for each connection
 *     collector_load fill PORT FROM TO COUNT SECONDS         those of COUNT small requests that are
 *                                                            spread over that time
 *
 * The first prints its port and serves until it is ended. The others print one line of figures:
 * microseconds of each handshake in order of size at 50, 90, 99 and 100 %; or payloads sent, not
 * taken, and the seconds that it took.
 */
#include "listener.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

/* As long as what the extension asks and is answered. */
static const std::string REQUEST =
	R"({"connect_info":{"agent_info":{"agent.version":"4.9","agent.version.info":"4.9.2.0",)"
	R"("application.name":"shop","application.type":"PHP","fqdn":"web1.example",)"
	R"("hostname":"web1","port":443,"host.type":"LINUX","rum.autoinjection":false},)"
	R"("agent_specific_info":{"application.group.name":""},"environment":{"MachineName":"web1",)"
	R"("OS":"LINUX","OSArch":"amd64","OSVersion":"6.1.0","IP": ["127.0.0.1","::1"]}},)"
	R"("misc_info":{"txn.name":"\/shop\/cart"}})"
	"\n";
static const std::string ANSWER(160, 'x');

static double now() {
	timespec time;
	clock_gettime(CLOCK_MONOTONIC, &time);
	return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

static void sleep_until(double time) {
	double left = time - now();
	if (left > 0) {
		timespec pause = {
			static_cast<time_t>(left),
			static_cast<long>((left - static_cast<double>(static_cast<time_t>(left))) * 1e9)};
		nanosleep(&pause, nullptr);
	}
}

static int connected(int port) {
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_port = htons(static_cast<uint16_t>(port));
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
		close(fd);
		fd = -1;
	}
	return fd;
}

static bool write_all(int fd, const char *data, size_t size) {
	while (size > 0) {
		ssize_t count = send(fd, data, size, MSG_NOSIGNAL);
		if (count <= 0) {
			return false;
		}
		data += count;
		size -= static_cast<size_t>(count);
	}
	return true;
}

static void answer(int epoll, int fd) {
	char buffer[8192];
	ssize_t count = read(fd, buffer, sizeof buffer);
	if (count > 0 && buffer[count - 1] != '\n') {
		return;
	}
	if (count > 0) {
		write_all(fd, ANSWER.data(), ANSWER.size());
	}
	epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
	close(fd);
}

static int echo() {
	int port;
	int listener = open_listener(&port);
	if (listener < 0) {
		return 1;
	}
	printf("%d\n", port);
	fflush(stdout);
	int epoll = epoll_create1(EPOLL_CLOEXEC);
	epoll_event wanted = {};
	wanted.events = EPOLLIN;
	wanted.data.fd = listener;
	epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &wanted);
	for (;;) {
		epoll_event events[64];
		int count = epoll_wait(epoll, events, 64, -1);
		for (int i = 0; i < count; i++) {
			int fd = events[i].data.fd;
			if (fd != listener) {
				answer(epoll, fd);
				continue;
			}
			wanted.data.fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
			epoll_ctl(epoll, EPOLL_CTL_ADD, wanted.data.fd, &wanted);
		}
	}
}

static bool handshake(int port) {
	int fd = connected(port);
	char buffer[8192];
	bool is_answered = false;
	if (fd >= 0 && write_all(fd, REQUEST.data(), REQUEST.size())) {
		ssize_t count;
		while ((count = read(fd, buffer, sizeof buffer)) > 0) {
			is_answered = true;
		}
	}
	close(fd);
	return is_answered;
}

static int handshakes(int port, int count, int pause) {
	std::vector<double> times;
	for (int i = 0; i < count; i++) {
		double begin = now();
		if (!handshake(port)) {
			fprintf(stderr, "no answer\n");
			return 1;
		}
		times.push_back((now() - begin) * 1e6);
		if (pause > 0) {
			usleep(static_cast<useconds_t>(pause));
		}
	}
	std::sort(times.begin(), times.end());
	for (double share : {0.5, 0.9, 0.99, 1.0}) {
		auto rank = static_cast<size_t>(share * static_cast<double>(times.size() - 1));
		printf("%.1f ", times[rank]);
	}
	printf("\n");
	return 0;
}

static int payloads(int port, double rate, double seconds, const char *path) {
	std::vector<std::string> lines;
	std::ifstream file(path);
	for (std::string line; std::getline(file, line);) {
		lines.push_back(line + "\n");
	}
	if (lines.empty()) {
		fprintf(stderr, "no payloads in %s\n", path);
		return 1;
	}
	auto total = static_cast<size_t>(rate * seconds);
	size_t refused = 0;
	double begin = now();
	for (size_t i = 0; i < total; i++) {
		sleep_until(begin + static_cast<double>(i) / rate);
		const std::string &line = lines[i % lines.size()];
		int fd = connected(port);
		refused += fd < 0 || !write_all(fd, line.data(), line.size()) ? 1 : 0;
		close(fd);
	}
	printf("%zu %zu %.3f\n", total - refused, refused, now() - begin);
	return 0;
}

static std::string base64(const std::string &text) {
	static const char *const DIGITS =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
	std::string out;
	for (size_t i = 0; i < text.size(); i += 3) {
		size_t left = std::min<size_t>(3, text.size() - i);
		unsigned bits = 0;
		for (size_t k = 0; k < 3; k++) {
			bits = bits << 8 | (k < left ? static_cast<unsigned char>(text[i + k]) : 0);
		}
		for (size_t k = 0; k < 4; k++) {
			out += k <= left ? DIGITS[bits >> (18 - 6 * k) & 63] : '=';
		}
	}
	return out;
}

/* Every 500th fails, one in 97 took ten times as long; four applications of 50 names each. */
static std::string small_request(size_t number, long long start) {
	static const char *const FORMAT =
		R"({"apm":{"data":true,"application_info":{"application_type":"PHP",)"
		R"("application_name":"shop%zu","application_group":"","instance_id":"i1"},)"
		R"("transaction_info":{"t_name":"/shop/page%c%c/%zu","http_host":"shop.example",)"
		R"("s_time":%lld,"e_time":%lld,"http_method_name":"GET","bytes_in":0,"bytes_out":5120,)"
		R"("transaction_type":1,"thread_id":4242,"httpcode":%d,"cputime":10,)"
		R"("memalloc":4194304,"trace_id":"%032zx"},"method_info":{"span_info":[)"
		R"({"st":%lld,"et":%lld,"mo":0,"fn":"main","cn":"PHP","si":"%016zx"},)"
		R"({"st":%lld,"et":%lld,"mo":1,"fn":"PDO::query","cn":"PDO","si":"%016zx",)"
		R"("psi":"%016zx","qs":"SELECT * FROM product WHERE category_%c = 7","ex":1}]},)"
		R"("app_parameters":{}}})";
	long long duration = static_cast<long long>(20 + number * 7919 % 180);
	duration *= number % 97 == 0 ? 10 : 1;
	size_t id = 0x1000000000000000 + number * 2;
	auto letter = [](size_t value) { return static_cast<int>('a' + value); };
	char text[2048];
	snprintf(text, sizeof text, FORMAT, number % 4, letter(number / 4 % 10),
			 letter(number / 40 % 5), number, start, start + duration,
			 number % 500 == 0 ? 500 : 200, number + 1, start, start + duration, id, start + 2,
			 start + 2 + duration / 2, id + 1, id, letter(number / 4 % 10));
	return base64(text) + "\n";
}

static int fill(int port, size_t from, size_t to, size_t count, double seconds) {
	constexpr size_t TOGETHER = 100;
	timespec time;
	clock_gettime(CLOCK_REALTIME, &time);
	double first = (static_cast<double>(time.tv_sec) - seconds) * 1000;
	double apart = seconds * 1000 / static_cast<double>(count);
	size_t refused = 0;
	double begin = now();
	for (size_t i = from; i < to; i += TOGETHER) {
		std::string lines;
		for (size_t k = i; k < std::min(i + TOGETHER, to); k++) {
			lines +=
				small_request(k, static_cast<long long>(first + static_cast<double>(k) * apart));
		}
		int fd = connected(port);
		refused += fd < 0 || !write_all(fd, lines.data(), lines.size()) ? TOGETHER : 0;
		close(fd);
	}
	printf("%zu %zu %.3f\n", to - from - refused, refused, now() - begin);
	return 0;
}

int main(int count, char **arguments) {
	std::string verb = count > 1 ? arguments[1] : "";
	if (verb == "echo") {
		return echo();
	}
	if (verb == "handshakes" && count == 5) {
		return handshakes(atoi(arguments[2]), atoi(arguments[3]), atoi(arguments[4]));
	}
	if (verb == "payloads" && count == 6) {
		return payloads(atoi(arguments[2]), atof(arguments[3]), atof(arguments[4]), arguments[5]);
	}
	if (verb == "fill" && count == 7) {
		auto number = [&](int at) { return static_cast<size_t>(atoll(arguments[at])); };
		return fill(atoi(arguments[2]), number(3), number(4), number(5), atof(arguments[6]));
	}
	fprintf(stderr, "usage: collector_load echo | handshakes PORT COUNT PAUSE_US | "
					"payloads PORT RATE SECONDS FILE | fill PORT FROM TO COUNT SECONDS\n");
	return 2;
}
