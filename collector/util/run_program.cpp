#include "util/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "util/unique_fd.h"

namespace kaq {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEndLooks = 200;
constexpr int kBetweenEndLooks = 10; /* milliseconds */

class SpawnSettings {
public:
	explicit SpawnSettings(int output) {
		posix_spawn_file_actions_init(&actions_);
		posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
		posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
		posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
		posix_spawnattr_init(&attributes_);
		sigset_t none;
		sigemptyset(&none);
		posix_spawnattr_setsigmask(&attributes_, &none);
		posix_spawnattr_setpgroup(&attributes_, 0);
		posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
	}
	~SpawnSettings() {
		posix_spawn_file_actions_destroy(&actions_);
		posix_spawnattr_destroy(&attributes_);
	}
	SpawnSettings(const SpawnSettings &) = delete;
	SpawnSettings &operator=(const SpawnSettings &) = delete;

	posix_spawn_file_actions_t actions_;
	posix_spawnattr_t attributes_;
};

std::vector<char *> pointers(std::vector<std::string> &texts) {
	std::vector<char *> pointers;
	pointers.reserve(texts.size() + 1);
	for (std::string &each : texts) {
		pointers.push_back(each.data());
	}
	pointers.push_back(nullptr);
	return pointers;
}

std::vector<std::string> environment_with(const std::vector<std::string> &variables) {
	std::vector<std::string> environment = variables;
	for (char **each = environ; *each; each++) {
		std::string text = *each;
		std::string name = text.substr(0, text.find('=') + 1);
		bool is_ours = true;
		for (const std::string &variable : variables) {
			is_ours = is_ours && variable.compare(0, name.size(), name) != 0;
		}
		if (is_ours) {
			environment.push_back(std::move(text));
		}
	}
	return environment;
}

/* False when the time or the room is used up. */
bool read_all(int fd, const ProgramLimits &limits, std::string &output) {
	Clock::time_point deadline = Clock::now() + limits.time;
	std::array<char, 65536> piece;
	for (;;) {
		auto left =
			std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
		pollfd waiting{fd, POLLIN, 0};
		if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) != 1) {
			return false;
		}
		ssize_t count = read(fd, piece.data(), piece.size());
		if (count <= 0) {
			return true;
		}
		output.append(piece.data(), static_cast<size_t>(count));
		if (output.size() > limits.bytes) {
			return false;
		}
	}
}

/* A program that has closed what it prints to need not have ended. */
bool ends_soon(pid_t process, int &status) {
	for (int i = 0; i < kEndLooks; i++) {
		if (waitpid(process, &status, WNOHANG) == process) {
			return true;
		}
		poll(nullptr, 0, kBetweenEndLooks);
	}
	return false;
}

} // namespace

ProgramRun run_program(const std::vector<std::string> &arguments,
					   const std::vector<std::string> &variables, const ProgramLimits &limits) {
	ProgramRun run;
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) {
		run.mistake = strerror(errno);
		return run;
	}
	UniqueFd reading(ends[0]);
	UniqueFd writing(ends[1]);
	std::vector<std::string> given = arguments;
	std::vector<std::string> environment = environment_with(variables);
	pid_t process = 0;
	SpawnSettings settings(writing.get());
	int error =
		posix_spawn(&process, given.at(0).c_str(), &settings.actions_, &settings.attributes_,
					pointers(given).data(), pointers(environment).data());
	writing.reset();
	if (error != 0) {
		run.mistake = strerror(error);
		return run;
	}
	int status = 0;
	run.is_late = !read_all(reading.get(), limits, run.output) || !ends_soon(process, status);
	if (run.is_late) {
		kill(-process, SIGKILL);
		while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
		}
	}
	run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
	return run;
}

} // namespace kaq
