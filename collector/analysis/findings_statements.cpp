#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "analysis/findings_private.h"
#include "analysis/sql_text.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

constexpr size_t kLongestRepeatable = 4096;

/* Executions of one statement. */
struct Group {
	std::vector<int32_t> spans;
	int64_t total = 0;
	int64_t longest = 0;

	void add(int32_t span, int64_t cost) {
		spans.push_back(span);
		total += cost;
		longest = std::max(longest, cost);
	}

	/* What is saved when one execution is enough. */
	int64_t gain() const {
		return total - longest;
	}
};

std::string lower(std::string_view text) {
	std::string result(text);
	for (char &character : result) {
		character = static_cast<char>(tolower(static_cast<unsigned char>(character)));
	}
	return result;
}

/* Whether a statement has the same answer when it runs again, as long as nobody writes. */
bool is_repeatable(const std::string &lowered) {
	static constexpr std::array<std::string_view, 16> kVarying = {
		"rand(",    "random(",           "now(",       "sleep(",   "uuid(",      "nextval(",
		"curtime(", "current_timestamp", "for update", "lock in",  "found_rows", "last_insert_id",
		"get_lock", "release_lock",      "for share",  "row_count"};
	bool reads_tables = lowered.find("from") != std::string::npos || lowered.find("show") == 0 ||
						lowered.find("describe") == 0;
	return is_reading(lowered) && reads_tables && lowered.size() <= kLongestRepeatable &&
		   std::none_of(kVarying.begin(), kVarying.end(), [&](std::string_view each) {
			   return lowered.find(each) != std::string::npos;
		   });
}

bool is_name_character(char character) {
	return isalnum(static_cast<unsigned char>(character)) != 0 || character == '_' ||
		   static_cast<unsigned char>(character) >= 0x80;
}

/* Where a text has that name in it, as a word of its own; the empty name is in every text. */
size_t find_name(std::string_view text, std::string_view name) {
	for (size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
		size_t end = at + name.size();
		bool is_begun = at > 0 && is_name_character(text[at - 1]);
		bool is_continued = end < text.size() && is_name_character(text[end]);
		if (name.empty() || (!is_begun && !is_continued)) {
			return at;
		}
	}
	return std::string_view::npos;
}

/* The table that a statement in lower case is about; nothing where it is named with its schema,
 * which other statements may leave out. */
std::string plain_table(const std::string &lowered) {
	std::string table = first_table(lowered);
	size_t at = find_name(lowered, table);
	if (at == std::string::npos) {
		return "";
	}
	size_t dot = lowered.find_first_not_of("`\" ", at + table.size());
	return dot != std::string::npos && lowered[dot] == '.' ? "" : table;
}

/*
 * How often what a statement reads has been written by then. A write concerns the statements in
 * which its table is named anywhere; one whose table is not known concerns all.
 */
class Writes {
public:
	/* Texts are in lower case, those that are not repeatable empty. */
	Writes(const Statements &statements, const std::vector<std::string> &texts,
		   const std::vector<std::string> &tables)
		: texts_(texts), tables_(tables) {
		for (const Execution &execution : statements.executions) {
			if (is_write(execution.text, statements)) {
				counts_.emplace(table_of(execution.text), 0);
			}
		}
	}

	static bool is_write(uint32_t text, const Statements &statements) {
		return !is_reading(statements.texts[text]) && !is_control(statements.texts[text]);
	}

	void add(uint32_t text) {
		counts_[table_of(text)]++;
	}

	int64_t before(uint32_t text) {
		auto known = concerned_.find(text);
		if (known == concerned_.end()) {
			std::vector<const int64_t *> counts;
			for (const auto &[table, count] : counts_) {
				if (find_name(texts_[text], table) != std::string::npos) {
					counts.push_back(&count);
				}
			}
			known = concerned_.emplace(text, std::move(counts)).first;
		}
		int64_t sum = 0;
		for (const int64_t *count : known->second) {
			sum += *count;
		}
		return sum;
	}

private:
	static constexpr size_t kMostTables = 64;

	std::string table_of(uint32_t text) const {
		bool is_known = counts_.count(tables_[text]) > 0 || counts_.size() < kMostTables;
		return is_known ? tables_[text] : "";
	}

	const std::vector<std::string> &texts_;
	const std::vector<std::string> &tables_;
	std::map<std::string, int64_t> counts_; /* by table */
	std::unordered_map<uint32_t, std::vector<const int64_t *>> concerned_;
};

class StatementFinder {
public:
	StatementFinder(const Examined &request, std::vector<Finding> &findings)
		: request_(request), findings_(findings), statements_(statements_of(request.transaction)),
		  costs_(request.transaction.spans.size()), written_(statements_.texts.size()),
		  repeatable_(statements_.texts.size()), duplicate_gain_(statements_.texts.size()) {
		for (const Execution &each : statements_.executions) {
			costs_[static_cast<size_t>(each.span)] =
				request.time_of(each.span) +
				(each.prepared < 0 ? 0 : request.time_of(each.prepared));
		}
		look_at_texts();
	}

	void run() {
		find_duplicates();
		find_repetitions();
		find_slow_ones();
	}

private:
	struct Duplicates {
		Group group;
		uint32_t text = 0;
	};

	/* Only at what may matter: most texts are executed once, or with places for values. */
	void look_at_texts() {
		std::vector<size_t> counts(statements_.texts.size());
		for (const Execution &each : statements_.executions) {
			counts[each.text] += each.has_places ? 0 : 1;
		}
		bool has_candidates =
			std::any_of(counts.begin(), counts.end(), [](size_t count) { return count > 1; });
		for (uint32_t text = 0; has_candidates && text < counts.size(); text++) {
			bool is_write = Writes::is_write(text, statements_);
			if (is_write || counts[text] > 1) {
				std::string lowered = lower(statements_.texts[text]);
				written_[text] = is_write ? plain_table(lowered) : "";
				repeatable_[text] = is_repeatable(lowered) ? lowered : "";
			}
		}
	}

	int64_t cost_of(int32_t span) const {
		return costs_[static_cast<size_t>(span)];
	}

	void find_duplicates() {
		Writes writes(statements_, repeatable_, written_);
		std::map<std::tuple<std::string_view, uint32_t, int32_t, int64_t>, Duplicates> all;
		for (const Execution &execution : statements_.executions) {
			if (Writes::is_write(execution.text, statements_)) {
				writes.add(execution.text);
			}
			bool is_known =
				!execution.has_places && execution.source >= 0 && execution.is_database_sure;
			if (is_known && !repeatable_[execution.text].empty()) {
				const Span &source = request_.span(execution.source);
				Duplicates &same = all[{source.query, execution.database, source.values,
										writes.before(execution.text)}];
				same.group.add(execution.span, cost_of(execution.span));
				same.text = execution.text;
			}
		}
		for (const auto &entry : all) {
			const Group &group = entry.second.group;
			if (group.spans.size() >= 2 && request_.matters(group.gain(), kRepeated)) {
				add(FindingKind::kDuplicateStatement,
					std::to_string(group.spans.size()) +
						" times the same statement with the same values" +
						place_text(request_, common_caller(request_, group.spans)),
					group.gain(), group.spans);
				duplicate_gain_[entry.second.text] += group.gain();
			}
		}
	}

	void find_repetitions() {
		/* What several servers are asked cannot be asked at once. */
		std::map<std::pair<uint32_t, uint32_t>, Group> groups;
		for (const Execution &execution : statements_.executions) {
			groups[{execution.text, execution.database}].add(execution.span,
															 cost_of(execution.span));
		}
		for (const auto &[key, group] : groups) {
			const std::string &text = statements_.texts[key.first];
			bool is_one = text != kUnknownStatement && !is_control(text);
			if (is_one && group.spans.size() >= static_cast<size_t>(kFewestRepetitions)) {
				find_repetition(group, duplicate_gain_[key.first]);
			}
		}
	}

	/* Where most of the executions are duplicates, that is said: not to repeat them is simpler. */
	void find_repetition(const Group &group, int64_t duplicate_gain) {
		Common common = common_caller(request_, group.spans);
		Group under;
		for (int32_t span : common.members) {
			under.add(span, cost_of(span));
		}
		auto count = static_cast<int64_t>(under.spans.size());
		bool is_told = duplicate_gain * 3 >= under.gain() * 2;
		if (count < kFewestRepetitions || is_told || !request_.matters(under.gain(), kRepeated)) {
			return;
		}
		add(FindingKind::kRepeatedStatement,
			std::to_string(count) + " times the same statement" + place_text(request_, common),
			under.gain(), under.spans);
	}

	/* Executions that are slow by themselves, of a statement that is not said to be repeated. */
	void find_slow_ones() {
		std::vector<Group> groups(statements_.texts.size());
		for (const Execution &execution : statements_.executions) {
			int64_t cost = cost_of(execution.span);
			bool is_slow = cost >= kSlowOne.least;
			bool is_told = is_told_.count(execution.span) > 0;
			if (is_slow && !is_told && !is_control(statements_.texts[execution.text])) {
				groups[execution.text].add(execution.span, cost);
			}
		}
		for (size_t text = 0; text < groups.size(); text++) {
			const Group &group = groups[text];
			if (group.spans.empty() || !request_.matters(group.total, kSlowOne)) {
				continue;
			}
			std::string begin = group.spans.size() == 1 ? "One statement"
														: std::to_string(group.spans.size()) +
															  " times a slow statement";
			std::string table = lower(first_table(statements_.texts[text]));
			add(FindingKind::kSlowStatement,
				begin + (table.empty() ? "" : " on " + said(table)) +
					place_text(request_, common_caller(request_, group.spans)),
				group.total, group.spans);
		}
	}

	void add(FindingKind kind, const std::string &what, int64_t gain,
			 const std::vector<int32_t> &spans) {
		findings_.push_back(make_finding(kind, what + ": " + request_.share(gain), gain, spans));
		for (int32_t span : spans) {
			is_told_.insert(span);
		}
	}

	const Examined &request_;
	std::vector<Finding> &findings_;
	const Statements statements_;
	std::vector<int64_t> costs_;          /* by span: an execution with what was prepared for it */
	std::vector<std::string> written_;    /* by text: its table, if it is known for certain */
	std::vector<std::string> repeatable_; /* by text: it in lower case, or nothing if it is not */
	std::vector<int64_t> duplicate_gain_; /* by text: what is said of its duplicates */
	std::unordered_set<int32_t> is_told_; /* spans that a finding is about */
};

/* Calls that ask a cache for one entry each, by function and caller. */
void find_cache_calls(const Examined &request, std::vector<Finding> &findings) {
	const std::vector<Span> &spans = request.transaction.spans;
	std::map<std::string_view, Group> groups;
	for (size_t i = 0; i < spans.size(); i++) {
		if (layer_of(spans[i]) == Layer::kCache && spans[i].is_external && spans[i].host.empty()) {
			groups[spans[i].name].add(static_cast<int32_t>(i),
									  request.time_of(static_cast<int32_t>(i)));
		}
	}
	for (const auto &[name, all] : groups) {
		Common common = common_caller(request, all.spans);
		Group under;
		for (int32_t span : common.members) {
			under.add(span, request.time_of(span));
		}
		bool are_many = under.spans.size() >= static_cast<size_t>(kFewestRepetitions);
		if (are_many && request.matters(under.gain(), kRepeated)) {
			std::string sentence = std::to_string(under.spans.size()) + " times " + said(name) +
								   place_text(request, common) + ": " + request.share(under.gain());
			findings.push_back(
				make_finding(FindingKind::kRepeatedCacheCall, sentence, under.gain(), under.spans));
		}
	}
}

} // namespace

void find_statements(const Examined &request, std::vector<Finding> &findings) {
	StatementFinder(request, findings).run();
	find_cache_calls(request, findings);
}

} // namespace kaq
