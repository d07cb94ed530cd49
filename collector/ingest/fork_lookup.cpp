#include "ingest/fork_lookup.h"

#include <algorithm>
#include <iterator>

namespace kaq {

std::vector<bool> ForkLookup::repeated(const Transaction &transaction) {
	if (transaction.is_web) {
		return {};
	}
	std::vector<bool> is_repeated;
	uint64_t id = fork_family(transaction);
	Process process{transaction.thread, marks_of(transaction)};
	std::lock_guard lock(mutex_);
	auto family = by_id_.find(id);
	if (family != by_id_.end()) {
		is_repeated.resize(transaction.spans.size());
		for (const Process &other : family->second->processes) {
			if (other.thread == process.thread) {
				continue;
			}
			std::vector<bool> more = repeated_spans(other.marks, process.marks);
			for (size_t i = 0; i < more.size(); i++) {
				is_repeated[i] = is_repeated[i] || more[i];
			}
		}
	}
	remember(id, std::move(process));
	return is_repeated;
}

void ForkLookup::remember(uint64_t id, Process process) {
	auto found = by_id_.find(id);
	if (found == by_id_.end()) {
		families_.push_front({id, {}});
		by_id_[id] = families_.begin();
	} else {
		families_.splice(families_.begin(), families_, found->second);
	}
	std::list<Process> &processes = families_.front().processes;
	spans_ += process.marks.size();
	processes.push_front(std::move(process));
	if (processes.size() > kMostProcesses) {
		drop_shortest(processes);
	}
	while (spans_ > most_spans_ && !families_.empty()) {
		forget_oldest();
	}
}

/* But for the last ones. */
void ForkLookup::drop_shortest(std::list<Process> &processes) {
	auto shortest = std::min_element(std::next(processes.begin(), kLastProcesses), processes.end(),
									 [](const Process &one, const Process &other) {
										 return one.marks.size() < other.marks.size();
									 });
	spans_ -= shortest->marks.size();
	processes.erase(shortest);
}

void ForkLookup::forget_oldest() {
	for (const Process &process : families_.back().processes) {
		spans_ -= process.marks.size();
	}
	by_id_.erase(families_.back().id);
	families_.pop_back();
}

} // namespace kaq
