#include "util/listeners.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

namespace kaq {
namespace {

constexpr const char *kListening = "0A";

struct Socket {
	Listener listener;
	std::string inode;
};

/* The system writes words of an address as numbers of its own byte order. */
std::string address_of(const std::string &digits) {
	std::array<uint32_t, 4> words{};
	size_t count = std::min<size_t>(digits.size() / 8, words.size());
	for (size_t i = 0; i < count; i++) {
		words[i] =
			static_cast<uint32_t>(std::strtoul(digits.substr(8 * i, 8).c_str(), nullptr, 16));
	}
	char text[INET6_ADDRSTRLEN] = "";
	inet_ntop(count == 4 ? AF_INET6 : AF_INET, words.data(), text, sizeof text);
	return text;
}

void read_sockets(const std::string &file, uint16_t port, std::vector<Socket> &sockets) {
	std::ifstream lines(file);
	std::string line;
	std::getline(lines, line);
	while (std::getline(lines, line)) {
		std::istringstream fields(line);
		std::array<std::string, 10> field;
		for (std::string &each : field) {
			fields >> each;
		}
		size_t colon = field[1].find(':');
		if (colon != std::string::npos && field[3] == kListening &&
			std::strtoul(field[1].c_str() + colon + 1, nullptr, 16) == port) {
			sockets.push_back({{address_of(field[1].substr(0, colon)), 0, ""}, field[9]});
		}
	}
}

void each_entry(const std::string &directory, const std::function<void(const char *)> &use) {
	std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
	for (const dirent *entry = nullptr; entries && (entry = readdir(entries.get()));) {
		use(entry->d_name);
	}
}

void look_at_process(const std::string &directory, const char *process,
					 std::vector<Socket> &sockets) {
	each_entry(directory + "/fd", [&](const char *name) {
		std::array<char, 64> target{};
		ssize_t length =
			readlink((directory + "/fd/" + name).c_str(), target.data(), target.size() - 1);
		for (Socket &socket : sockets) {
			if (length > 0 && socket.listener.process == 0 &&
				"socket:[" + socket.inode + "]" == target.data()) {
				socket.listener.process = std::atoll(process);
				std::ifstream(directory + "/comm") >> socket.listener.program;
			}
		}
	});
}

} // namespace

std::vector<Listener> listeners_on(uint16_t port, const std::string &processes) {
	std::vector<Socket> sockets;
	read_sockets(processes + "/net/tcp", port, sockets);
	read_sockets(processes + "/net/tcp6", port, sockets);
	if (!sockets.empty()) {
		each_entry(processes, [&](const char *name) {
			if (name[0] >= '1' && name[0] <= '9') {
				look_at_process(processes + "/" + name, name, sockets);
			}
		});
	}
	std::vector<Listener> listeners;
	listeners.reserve(sockets.size());
	for (Socket &each : sockets) {
		listeners.push_back(std::move(each.listener));
	}
	return listeners;
}

} // namespace kaq
