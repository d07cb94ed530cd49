/*
 * Finds out which spans of a request another process of the same fork has reported already, so that
 * figures count them once. Remembers a bounded number of scripts of the command line: a web
 * server's processes do not fork within a request. Any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "analysis/fork.h"
#include "model/transaction.h"

namespace kaq {

class ForkLookup {
public:
	static constexpr size_t kUsualSpans = 1000000; /* that are remembered */
	/* Processes of a fork that are remembered: the last ones, and the longest of the others. */
	static constexpr size_t kMostProcesses = 8;
	static constexpr size_t kLastProcesses = 4;

	explicit ForkLookup(size_t most_spans = kUsualSpans) : most_spans_(most_spans) {
	}

	/* By span; nothing if it is of no fork. REQUIRES: each request is asked for once. */
	std::vector<bool> repeated(const Transaction &transaction);

private:
	struct Process {
		int64_t thread;
		std::vector<SpanMark> marks;
	};
	struct Family {
		uint64_t id;
		std::list<Process> processes;
	};
	using Families = std::list<Family>;

	void drop_shortest(std::list<Process> &processes);
	void remember(uint64_t id, Process process);
	void forget_oldest();

	const size_t most_spans_;
	std::mutex mutex_;
	Families families_; /* the last one that reported comes first */
	std::unordered_map<uint64_t, Families::iterator> by_id_;
	size_t spans_ = 0;
};

} // namespace kaq
