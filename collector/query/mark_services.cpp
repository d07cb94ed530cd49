/* Services about marked moments. */
#include <xxhash.h>

#include <algorithm>
#include <string>
#include <vector>

#include "query/parameters.h"
#include "query/service_table.h"

namespace kaq {
namespace {

constexpr size_t kLongestText = 200; /* bytes */
constexpr size_t kUsualMarks = 1000;
constexpr size_t kDigits = 16;
constexpr size_t kLeastDigits = 4;

/* The same for what is the same in everything. */
std::string id_of(const Mark &mark) {
	std::string all = std::to_string(mark.time) + '\0' + mark.application + '\0' + mark.text;
	uint64_t hash = XXH3_64bits(all.data(), all.size());
	std::string id(kDigits, '0');
	for (auto digit = id.rbegin(); digit != id.rend(); ++digit, hash >>= 4) {
		*digit = "0123456789abcdef"[hash & 15];
	}
	return id;
}

nlohmann::json to_json(const Mark &mark) {
	return {{"id", id_of(mark)},
			{"time_ms", mark.time},
			{"application", mark.application},
			{"text", mark.text}};
}

/* The one whose id begins like that. */
Mark mark_of(ServiceContext &context, const std::string &id) {
	if (id.size() < kLeastDigits) {
		throw ServiceMistake(400, "the id is too short",
							 "at least its first " + std::to_string(kLeastDigits) + " characters",
							 "id");
	}
	std::vector<Mark> found;
	for (Mark &mark : context.store.marks({})) {
		bool is_known = !found.empty() && id_of(found.front()) == id_of(mark);
		if (id_of(mark).compare(0, id.size(), id) == 0 && !is_known) {
			found.push_back(std::move(mark));
		}
	}
	if (found.empty()) {
		throw ServiceMistake(404, "there is no such mark",
							 "'kaq mark --list' shows those there are", "id");
	}
	if (found.size() > 1) {
		throw ServiceMistake(400, "several marks have an id that begins like that",
							 "give more of it", "id");
	}
	return std::move(found.front());
}

} // namespace

Answer add_mark(ServiceContext &context, const Question &question) {
	Mark mark;
	mark.text = text_of(question, "text");
	mark.application = text_of(question, "app");
	if (mark.text.size() > kLongestText) {
		throw ServiceMistake(400, "the text is too long",
							 "it has at most " + std::to_string(kLongestText) + " bytes", "text");
	}
	mark.time = time_of(context, question, "time", context.clock());
	context.store.add_mark(mark);
	return json_answer(to_json(mark));
}

Answer remove_mark(ServiceContext &context, const Question &question) {
	Mark mark = mark_of(context, text_of(question, "id"));
	context.store.remove_mark(mark);
	return json_answer(to_json(mark));
}

Answer list_marks(ServiceContext &context, const Question &question) {
	const std::string &application = text_of(question, "app");
	size_t limit = limit_of(question, kUsualMarks);
	std::vector<Mark> marks = context.store.marks(range_of(context, question));
	auto is_of_another = [&application](const Mark &mark) {
		return !application.empty() && !mark.application.empty() && mark.application != application;
	};
	marks.erase(std::remove_if(marks.begin(), marks.end(), is_of_another), marks.end());
	size_t left_out = marks.size() - std::min(limit, marks.size());
	nlohmann::json list = nlohmann::json::array();
	for (size_t i = left_out; i < marks.size(); i++) {
		list.push_back(to_json(marks[i]));
	}
	return json_answer({{"marks", std::move(list)}, {"more", left_out > 0}});
}

} // namespace kaq
