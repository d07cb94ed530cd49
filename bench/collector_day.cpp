/*
 * A day of a busy host in minutes: requests go through everything that the collector does with them
 * but the network, and the store's clock goes as fast as they come.
 *
 *     collector_day DIRECTORY REQUESTS
 *
 * Prints a line for each hour of that day, then what was asked of the whole day; status 1 if a
 * bound does not hold. Caps are small, so that they are reached.
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ingest/pipeline.h"
#include "ingest/recorder.h"
#include "store/sqlite_store.h"

using namespace kaq;

namespace {

constexpr int64_t kBegin = 1767225600LL * 1000; /* a midnight */
constexpr int64_t kHour = 3600LL * 1000;
constexpr int64_t kDay = 24 * kHour;
constexpr int64_t kMostBytes = 256LL << 20;
constexpr int64_t kMostFigureBytes = 48LL << 20;
constexpr size_t kPayloadMemory = 96 << 20;
constexpr int kTransactions = 400;
constexpr int kStatements = 600;
constexpr double kMostResident = 256; /* MiB */
/* Of the speed of the first hours that the last ones must have. */
constexpr double kLeastSpeed = 0.7;

using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

int failures = 0;

void expect(bool holds, const char *what) {
	if (!holds) {
		printf("DOES NOT HOLD: %s\n", what);
		failures++;
	}
}

double resident() {
	long pages = 0;
	FILE *file = fopen("/proc/self/statm", "r");
	if (!file || fscanf(file, "%*d %ld", &pages) != 1) {
		pages = 0;
	}
	if (file) {
		fclose(file);
	}
	return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

size_t descriptors() {
	size_t count = 0;
	DIR *directory = opendir("/proc/self/fd");
	while (directory && readdir(directory)) {
		count++;
	}
	if (directory) {
		closedir(directory);
	}
	return count - 3; /* itself, "." and ".." */
}

std::string base64(const std::string &text) {
	static const char alphabet[] =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
	std::string out;
	out.reserve((text.size() + 2) / 3 * 4);
	for (size_t i = 0; i + 3 <= text.size(); i += 3) {
		auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
		unsigned bits = static_cast<unsigned>(byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2));
		for (int shift = 18; shift >= 0; shift -= 6) {
			out += alphabet[bits >> shift & 63];
		}
	}
	return out;
}

/* Requests of 20 spans to three applications; one in 100 fails. */
class Requests {
public:
	std::string line(int64_t time) {
		auto duration = static_cast<int64_t>(durations_(random_));
		auto kind = static_cast<int>(random_() % kTransactions);
		int status = random_() % 100 == 0 ? 500 : 200;
		root_ = random_();
		std::string spans = span(root_, time, time + duration, "main", "PHP", "");
		for (int i = 0; i < 19; i++) {
			int64_t begin = time + duration * i / 20;
			spans += i % 3 ? "," + span(random_(), begin, begin + duration / 30,
										"Cart::step" + std::to_string(kind % 7 * 10 + i), "PHP", "")
						   : "," + span(random_(), begin, begin + duration / 40, "PDO::query",
										"PDO", statement(kind));
		}
		char head[600];
		snprintf(head, sizeof head,
				 R"({"apm":{"data":true,"application_info":{"application_name":"shop%d",)"
				 R"("instance_id":"i%d"},"transaction_info":{"t_name":"/area%d/page%d/%d",)"
				 R"("s_time":%lld,"e_time":%lld,"transaction_type":1,"httpcode":%d,"cputime":%lld,)"
				 R"("memalloc":4194304,"trace_id":"%016llx%016llx"},"method_info":{"span_info":[)",
				 kind % 3, kind % 4, kind % 20, kind, static_cast<int>(random_() % 100000),
				 static_cast<long long>(time), static_cast<long long>(time + duration), status,
				 static_cast<long long>(duration / 2), static_cast<unsigned long long>(random_()),
				 static_cast<unsigned long long>(random_()));
		std::string document = head + spans + R"(]},"app_parameters":{}}})";
		document.append((3 - document.size() % 3) % 3, ' ');
		return base64(document) + "\n";
	}

private:
	static std::string hex(uint64_t number) {
		char text[17];
		snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
		return text;
	}

	/* A page has some statements of its own and shares others. */
	std::string statement(int kind) {
		uint64_t number = (static_cast<uint64_t>(kind) + random_() % 7) % kStatements;
		return R"(,"ex":1,"qs":"SELECT a, b FROM t)" + std::to_string(number) +
			   " WHERE id = " + std::to_string(random_() % 100000) + "\"";
	}

	std::string span(uint64_t id, int64_t begin, int64_t end, const std::string &name,
					 const std::string &component, const std::string &more) const {
		std::string parent = id == root_ ? "" : R"(,"psi":")" + hex(root_) + "\"";
		return R"({"st":)" + std::to_string(begin) + R"(,"et":)" + std::to_string(end) +
			   R"(,"mo":0,"fn":")" + name + R"(","cn":")" + component + R"(","si":")" + hex(id) +
			   "\"" + parent + more + "}";
	}

	std::mt19937_64 random_{1};
	std::lognormal_distribution<double> durations_{4.5, 0.8};
	uint64_t root_ = 0;
};

SqliteSettings settings_of(const char *directory, std::atomic<int64_t> &now) {
	SqliteSettings settings;
	settings.directory = directory;
	settings.most_bytes = kMostBytes;
	settings.file_bytes = 16 << 20;
	settings.figures.most_bytes = kMostFigureBytes;
	settings.figures.minutes = 6 * kHour;
	settings.clock = [&now] { return now.load(); };
	return settings;
}

/* Within its caps, but for the file that is being written to and what waits for its checkpoint. */
void report(int hour, int64_t requests, double seconds, const StoreStatus &status) {
	double speed = static_cast<double>(requests) / seconds;
	printf(
		"%4d %9.0f %9lld %9lld %8lld %8.0f %8.0f %6zu %6zu %8.0f\n", hour, speed,
		static_cast<long long>(status.requests_put), static_cast<long long>(status.documents_kept),
		static_cast<long long>(status.requests_lost), static_cast<double>(status.bytes) / (1 << 20),
		static_cast<double>(status.figure_bytes) / (1 << 20), status.parts.size(), descriptors(),
		resident());
	fflush(stdout);
	expect(status.requests_lost == 0, "nothing is lost");
	expect(status.damages.empty(), "nothing is damaged");
	expect(status.bytes <= kMostBytes + (48 << 20), "requests stay within their cap");
	expect(status.figure_bytes <= kMostFigureBytes + (48 << 20), "figures stay within their cap");
	expect(resident() <= kMostResident, "memory");
}

/* What the figures have of the whole day has to be every request. */
void ask(Store &store, int64_t requests) {
	FigureSearch search;
	search.range = {kBegin, kBegin + kDay + kHour};
	auto begin = Clock::now();
	std::vector<FigureRow> rows = store.figures(search);
	double seconds = Seconds(Clock::now() - begin).count();
	int64_t counted = 0;
	for (const FigureRow &row : rows) {
		counted += row.figures.count;
	}
	printf("the day has %lld requests of %zu transactions, told in %.0f ms\n",
		   static_cast<long long>(counted), rows.size(), seconds * 1000);
	expect(counted == requests, "every request counts");
	Search newest;
	expect(!store.search(newest).rows.empty(), "the last requests are found");
}

int run(const char *directory, int64_t requests) {
	std::atomic<int64_t> now{kBegin};
	SqliteStore store(settings_of(directory, now));
	ForkLookup forks;
	MemoryBudget budget(kPayloadMemory);
	auto pipeline = std::make_unique<Pipeline>(PipelineSettings(), [&] {
		std::vector<Pipeline::Sink> sinks;
		for (int i = 0; i < 2; i++) {
			auto recorder = std::make_shared<Recorder>(store, forks);
			sinks.emplace_back([recorder](const std::shared_ptr<const Transaction> &transaction) {
				recorder->record(*transaction);
			});
		}
		return sinks;
	}());
	printf("%4s %9s %9s %9s %8s %8s %8s %6s %6s %8s\n", "hour", "req/s", "put", "documents", "lost",
		   "MiB", "figures", "files", "fds", "resident");
	Requests source;
	std::vector<double> speeds;
	for (int hour = 0; hour < 24; hour++) {
		auto begin = Clock::now();
		int64_t first = requests * hour / 24;
		int64_t last = requests * (hour + 1) / 24;
		for (int64_t i = first; i < last; i++) {
			now = kBegin + static_cast<int64_t>(static_cast<double>(kDay) * static_cast<double>(i) /
												static_cast<double>(requests));
			while (budget.fill() > 0.1) {
				std::this_thread::sleep_for(std::chrono::milliseconds(1));
			}
			BudgetedBuffer bytes(budget);
			if (!bytes.append(source.line(now)) || !pipeline->accept(std::move(bytes))) {
				expect(false, "there is room for a payload");
			}
		}
		while (budget.fill() > 0) {
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		store.flush();
		double seconds = Seconds(Clock::now() - begin).count();
		speeds.push_back(static_cast<double>(last - first) / seconds);
		report(hour, last - first, seconds, store.status());
	}
	std::vector<double> early(speeds.begin() + 2, speeds.begin() + 8);
	std::vector<double> late(speeds.end() - 6, speeds.end());
	std::sort(early.begin(), early.end());
	std::sort(late.begin(), late.end());
	printf("speed: median %.0f/s of hours 2 to 7, %.0f/s of the last 6\n", early[3], late[3]);
	expect(late[3] >= kLeastSpeed * early[3], "the speed does not fall");
	ask(store, requests);
	return failures > 0 ? 1 : 0;
}

} // namespace

int main(int count, char **arguments) {
	if (count != 3) {
		fprintf(stderr, "usage: collector_day DIRECTORY REQUESTS\n");
		return 2;
	}
	return run(arguments[1], atoll(arguments[2]));
}
