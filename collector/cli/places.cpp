#include "cli/places.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "cli/configuration.h"
#include "util/random.h"
#include "util/regular_file.h"
#include "util/unique_fd.h"

namespace kaq {
namespace {

constexpr size_t kTokenBytes = 24;

[[noreturn]] void fail(const std::string &what) {
	throw std::system_error(errno, std::generic_category(), what);
}

std::string user_store() {
	const char *data = std::getenv("XDG_DATA_HOME");
	if (data && data[0] == '/') {
		return std::string(data) + "/kaq";
	}
	const char *home = std::getenv("HOME");
	return std::string(home && home[0] ? home : "/tmp") + "/.local/share/kaq";
}

} // namespace

std::string default_store() {
	if (access(kServiceStore, W_OK) == 0) {
		return kServiceStore;
	}
	std::string store = user_store();
	std::filesystem::create_directories(std::filesystem::path(store).parent_path());
	mkdir(store.c_str(), 0700);
	return store;
}

std::string store_to_ask(const std::string &service, const std::string &user) {
	bool is_service =
		access(socket_of(service).c_str(), R_OK | W_OK) == 0 || access(service.c_str(), W_OK) == 0;
	return is_service ? service : user;
}

std::string store_to_ask() {
	return store_to_ask(kServiceStore, user_store());
}

std::string store_directory(const std::string &option, const std::string &file) {
	if (!option.empty()) {
		return option;
	}
	std::string path = configuration_file(file);
	if (file.empty() && access(path.c_str(), R_OK) != 0) {
		return store_to_ask();
	}
	ConfigurationOrMistakes configuration = load_configuration(file);
	if (!configuration) {
		std::string text = mistakes_text(path, configuration.error());
		text.pop_back();
		throw std::runtime_error(text);
	}
	const std::string &directory = configuration->store.directory;
	return directory.empty() ? store_to_ask() : directory;
}

std::string lock_of(const std::string &store) {
	return store + "/lock";
}

std::string socket_of(const std::string &store) {
	return store + "/collector.sock";
}

bool is_forbidden(const std::string &store) {
	return access(socket_of(store).c_str(), R_OK | W_OK) != 0 && errno == EACCES;
}

std::string sessions_of(const std::string &store) {
	return store + "/sessions";
}

std::string token_of(const std::string &store) {
	std::string path = store + "/token";
	struct stat facts = {};
	std::string token;
	if (lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode)) {
		chmod(path.c_str(), 0600);
		token = beginning_of(path, 2 * kTokenBytes + 1).value_or("");
	}
	token.resize(std::min(token.find('\n'), token.size()));
	if (token.size() == 2 * kTokenBytes) {
		return token;
	}
	token = random_hex(kTokenBytes);
	UniqueFd fd(open(path.c_str(),
					 O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
	std::string line = token + "\n";
	if (!fd || write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
		fail("cannot write " + path);
	}
	return token;
}

} // namespace kaq
