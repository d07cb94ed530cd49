#include "query/mistake_json.h"

#include <nlohmann/json.hpp>

namespace kaq {

nlohmann::json to_json(const std::vector<Mistake> &mistakes) {
	nlohmann::json list = nlohmann::json::array();
	for (const Mistake &mistake : mistakes) {
		list.push_back(
			{{"column", mistake.column}, {"text", mistake.text}, {"hint", mistake.hint}});
	}
	return {{"mistakes", std::move(list)}};
}

} // namespace kaq
