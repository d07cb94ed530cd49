#include "store/figures.h"

#include <xxhash.h>

#include <algorithm>

namespace kaq {

int64_t FigureKey::hash() const {
	std::string all(1, static_cast<char>(kind));
	for (const std::string *part :
		 {&application, &transaction, &text, &details[0], &details[1], &details[2], &details[3]}) {
		all += std::to_string(part->size());
		all += ':';
		all += *part;
	}
	return static_cast<int64_t>(XXH3_64bits(all.data(), all.size()));
}

void Figures::add(const Figures &other) {
	if (other.longest > longest || example.empty()) {
		example = other.example;
	}
	first = count == 0 ? other.first : std::min(first, other.first);
	last = std::max(last, other.last);
	requests += other.requests;
	count += other.count;
	failed += other.failed;
	total += other.total;
	longest = std::max(longest, other.longest);
	cpu += other.cpu;
	memory = std::max(memory, other.memory);
	queries += other.queries;
	query_time += other.query_time;
	calls += other.calls;
	external_time += other.external_time;
	durations.add(other.durations);
}

Figures figures_of(const Summary &summary, int64_t time) {
	Figures figures;
	figures.requests = figures.count = 1;
	figures.failed = summary.is_failed ? 1 : 0;
	figures.total = figures.longest = summary.duration;
	figures.cpu = summary.cpu;
	figures.memory = summary.memory;
	figures.queries = summary.queries;
	figures.query_time = summary.query_time;
	figures.calls = summary.calls;
	figures.external_time = summary.external_time;
	figures.first = figures.last = time;
	figures.example = summary.id;
	figures.durations.add(summary.duration);
	return figures;
}

} // namespace kaq
