#include <fcntl.h>
#include <glob.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>

#include <fmt/format.h>

#include "cli/client.h"
#include "cli/doctor_private.h"
#include "cli/format.h"
#include "ingest/crash_log.h"
#include "util/regular_file.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr const char *kKeyFile = "/opt/kaq/conf/account_key";
constexpr const char *kKeyVariable = "KAQ_ACCOUNT_KEY";
constexpr size_t kShortestKey = 12;
constexpr const char *kClockFile =
	"/sys/devices/system/clocksource/clocksource0/current_clocksource";
constexpr int64_t kDay = 24 * 3600 * 1000;
constexpr uint64_t kMebibyte = 1 << 20;
constexpr uint64_t kLeastSpace = 64 * kMebibyte;
constexpr uint64_t kUsualStack = 8 * kMebibyte;
/* Levels of recursion in 8 MiB, of the version that has the fewest. */
constexpr uint64_t kLevels = 47000;

std::string trimmed(const std::string &text) {
	size_t begin = text.find_first_not_of(" \t\r\n");
	size_t end = text.find_last_not_of(" \t\r\n");
	return begin == std::string::npos ? "" : text.substr(begin, end + 1 - begin);
}

/* Whether a line of a pool's file is "env[KAQ_ACCOUNT_KEY] = …". */
bool sets_key(std::string line) {
	line.erase(std::remove_if(line.begin(), line.end(),
							  [](char each) { return each == ' ' || each == '\t'; }),
			   line.end());
	return line.rfind(std::string("env[") + kKeyVariable + "]=", 0) == 0;
}

/* Where a pool's own file gives its processes the key, which they have been started without. */
void check_pools(const DoctorContext &context, CheckResults &results) {
	for (const char *pattern :
		 {"/etc/php/*/fpm/pool.d/*.conf", "/etc/php-fpm.d/*.conf", "/etc/php*/php-fpm.d/*.conf",
		  "/usr/local/etc/php-fpm.d/*.conf", "/opt/*/etc/php-fpm.d/*.conf"}) {
		for (const std::string &file : matching_files(context.root, pattern)) {
			std::ifstream lines(file);
			for (std::string line; std::getline(lines, line);) {
				if (sets_key(line)) {
					results.push_back(
						{Health::kProblem,
						 file + " sets env[" + kKeyVariable + "], which comes too late",
						 fmt::format("the extension reads the key when FPM's master starts: give "
									 "it to the service ('systemctl edit', Environment=), or "
									 "write it into {}; clear_env does not concern it",
									 kKeyFile)});
				}
			}
		}
	}
}

bool wants_key(const DoctorContext &context) {
	return std::any_of(context.installations.begin(), context.installations.end(),
					   [](const PhpInstallation &each) {
						   return each.value("kaq.capture_distributed_trace") == "1";
					   });
}

/* Of a process that serves PHP, from its limits; 0: none. */
std::optional<uint64_t> stack_limit(const std::string &limits) {
	constexpr const char *kName = "Max stack size";
	std::ifstream lines(limits);
	for (std::string line; std::getline(lines, line);) {
		if (line.compare(0, strlen(kName), kName) == 0) {
			std::string value = trimmed(line.substr(strlen(kName)));
			value = value.substr(0, value.find(' '));
			return value == "unlimited" ? 0 : std::strtoull(value.c_str(), nullptr, 10);
		}
	}
	return std::nullopt;
}

bool serves_php(const std::string &program) {
	return program.compare(0, 3, "php") == 0 || program == "apache2" || program == "httpd";
}

CheckResult stack_result(const std::string &whose, uint64_t limit) {
	if (limit == 0) {
		return {Health::kOk, whose + ": no limit", ""};
	}
	std::string what =
		fmt::format("{}: {}, in which recorded user functions may recurse about {} levels deep",
					whose, bytes_text(static_cast<int64_t>(limit)),
					count_text(static_cast<int64_t>(kLevels * limit / kUsualStack)));
	if (limit >= kUsualStack) {
		return {Health::kOk, what, ""};
	}
	return {Health::kWarning, what,
			"what recurses deeper ends in a segmentation fault: raise it ('ulimit -s', LimitSTACK= "
			"of the service, ThreadStackSize of Apache), or set kaq.track_zend_execute=0"};
}

} // namespace

std::vector<std::string> matching_files(const std::string &root, const std::string &pattern) {
	glob_t found{};
	std::vector<std::string> files;
	if (glob((root + pattern).c_str(), 0, nullptr, &found) == 0) {
		files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
	}
	globfree(&found);
	return files;
}

CheckResults check_account_key(const DoctorContext &context) {
	CheckResults results;
	check_pools(context, results);
	std::string path = context.root + kKeyFile;
	std::optional<std::string> text = beginning_of(path, 4096);
	if (text) {
		std::string key = trimmed(text->substr(0, text->find('\n')));
		bool is_long = key.size() >= kShortestKey;
		results.push_back({is_long ? Health::kOk : Health::kProblem,
						   path + (is_long ? " has one" : " has fewer than 12 characters"),
						   is_long ? "" : "use a key of at least 12, the same for all services"});
	} else if (access(path.c_str(), F_OK) == 0) {
		results.push_back({Health::kUnknown, path + " cannot be read", "run this as root"});
	} else if (wants_key(context)) {
		results.push_back(
			{Health::kWarning,
			 fmt::format("none in {}, though kaq.capture_distributed_trace is on", path),
			 fmt::format("unless {} is in the environment of what starts PHP, calls carry no flow "
						 "of applications",
						 kKeyVariable)});
	} else if (results.empty()) {
		results.push_back({Health::kOk, "none, which matters between services alone", ""});
	}
	return results;
}

CheckResults check_stacks(const DoctorContext &context) {
	std::map<std::string, uint64_t> least;
	bool is_hidden = false;
	for (const std::string &directory : matching_files(context.root, "/proc/[1-9]*")) {
		std::string program;
		std::ifstream(directory + "/comm") >> program;
		if (!serves_php(program)) {
			continue;
		}
		std::optional<uint64_t> limit = stack_limit(directory + "/limits");
		is_hidden = is_hidden || !limit;
		if (limit) {
			auto known = least.try_emplace(program, *limit).first;
			bool is_less = *limit != 0 && (known->second == 0 || *limit < known->second);
			known->second = is_less ? *limit : known->second;
		}
	}
	rlimit own{};
	if (least.empty() && getrlimit(RLIMIT_STACK, &own) == 0) {
		bool is_limited = own.rlim_cur != RLIM_INFINITY;
		least["this shell's programs"] = is_limited ? own.rlim_cur : 0;
	}
	CheckResults results;
	for (const auto &[program, limit] : least) {
		results.push_back(stack_result(program, limit));
	}
	if (is_hidden) {
		results.push_back(
			{Health::kUnknown, "some processes do not show their limits", "run this as root"});
	}
	return results;
}

CheckResults check_crashes(const DoctorContext &context) {
	std::vector<std::string> directories = context.configuration
											   ? context.configuration->crash_logs.directories
											   : CrashLogSettings().directories;
	for (std::string &each : directories) {
		each.insert(0, context.root);
	}
	CrashLogs logs(directories);
	int64_t now = system_time();
	std::vector<Crash> crashes = logs.look(now, kDay);
	CheckResults results;
	for (const CrashDirectory &each : logs.directories()) {
		if (!each.is_there) {
			results.push_back({Health::kWarning, each.path + " is not there: crashes leave no log",
							   "install -d -o www-data -m 0750 " + each.path});
		} else if (!each.mistake.empty()) {
			results.push_back({Health::kUnknown, each.path + ": " + each.mistake,
							   "the collector has to be able to read it to notice crashes"});
		} else {
			results.push_back(
				{Health::kOk,
				 each.path + ": " + count_of(static_cast<int64_t>(each.logs), "log", "logs"), ""});
		}
	}
	auto ours = std::count_if(crashes.begin(), crashes.end(),
							  [](const Crash &crash) { return crash.is_ours; });
	if (!crashes.empty()) {
		const Crash &last = crashes.back();
		results.push_back(
			{ours > 0 ? Health::kProblem : Health::kWarning,
			 fmt::format(
				 "{} in the last 24 hours, {} of them in the extension; the last one at {}, "
				 "process {}, signal {}: {}",
				 count_of(static_cast<int64_t>(crashes.size()), "crash", "crashes"), ours,
				 full_time_text(last.time), last.process, last.signal, printable(last.place)),
			 "docs/diagnostics.md says how to read the log"});
	}
	return results;
}

CheckResults check_suspensions(const DoctorContext &context) {
	CheckResults results;
	for (const nlohmann::json &each : context.fact("suspended")) {
		std::string application = each.value("application", "");
		results.push_back({Health::kProblem,
						   fmt::format("{} is not monitored since {}: {}",
									   application.empty() ? "everything" : printable(application),
									   full_time_text(each.value("since_ms", int64_t{0})),
									   printable(each.value("reason", ""))),
						   "when the cause is gone: kaq resume " + printable(application)});
	}
	if (results.empty()) {
		results.push_back(context.is_running
							  ? CheckResult{Health::kOk, "nothing was stopped for crashes", ""}
							  : CheckResult{Health::kUnknown, "no collector runs that says", ""});
	}
	return results;
}

CheckResults check_clock(const DoctorContext &context) {
	static const std::set<std::string> kSlow = {"hpet", "acpi_pm", "jiffies", "refined-jiffies",
												"xen",  "pit"};
	std::optional<std::string> text = beginning_of(context.root + kClockFile, 256);
	if (!text) {
		return {{Health::kUnknown, "the system does not say which clock it uses", ""}};
	}
	std::string clock = trimmed(*text);
	if (kSlow.count(clock) > 0) {
		return {{Health::kWarning, clock + ", which takes a microsecond and more to read",
				 "calls cost more, and times are less exact: see why the system does not use the "
				 "processor's counter ('dmesg | grep -i clocksource')"}};
	}
	return {{Health::kOk, clock, ""}};
}

CheckResults check_disk(const DoctorContext &context) {
	struct statvfs disk;
	if (statvfs(context.store.c_str(), &disk) != 0) {
		return {{Health::kProblem, context.store + ": " + strerror(errno),
				 "the store's directory has to be there"}};
	}
	uint64_t free = static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
	nlohmann::json store = context.status.value("store", nlohmann::json::object());
	int64_t used = store.value("bytes", int64_t{0}) + store.value("figure_bytes", int64_t{0});
	int64_t most =
		store.value("most_bytes", int64_t{0}) + store.value("most_figure_bytes", int64_t{0});
	int64_t missing = std::max<int64_t>(0, most - used);
	std::string what = fmt::format("{} of at most {} are used, {} are free", bytes_text(used),
								   bytes_text(most), bytes_text(static_cast<int64_t>(free)));
	nlohmann::json parts = store.value("parts", nlohmann::json::array());
	if (!parts.empty()) {
		what += "; requests since " + full_time_text(parts.front().value("begun_ms", int64_t{0}));
	}
	if (free < kLeastSpace) {
		return {{Health::kProblem, what, "make room: nothing can be kept soon"}};
	}
	if (free < static_cast<uint64_t>(missing)) {
		return {{Health::kWarning, what,
				 "the disk is full before the store is: make room, or lower size_cap and "
				 "rollup_cap in [store]"}};
	}
	return {{Health::kOk, what, ""}};
}

} // namespace kaq
