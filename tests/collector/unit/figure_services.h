/* Asks services about figures of a real store, and recomputes what they tell from the records. */
#pragma once

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "query/service.h"
#include "sqlite_store_fixture.h"

namespace kaq_test {

using Parameters = std::map<std::string, std::string>;

class FigureServicesTest : public SqliteStoreTest {
protected:
	kaq::Answer answer(const std::string &path, const Parameters &parameters = {}) {
		kaq::ServiceContext context{store(), [this] { return now_.load(); }, nullptr, nullptr};
		const kaq::Service *service = kaq::find_service("GET", path);
		if (!service) {
			ADD_FAILURE() << "no service " << path;
			return {};
		}
		return kaq::answer_of(*service, context, {parameters});
	}

	nlohmann::json ask(const std::string &path, const Parameters &parameters = {}) {
		kaq::Answer answered = answer(path, parameters);
		EXPECT_EQ(200, answered.status) << answered.body.dump();
		return answered.body;
	}

	/* Keeps it for recomputing, too. */
	void put_record(kaq::Record record) {
		records_.push_back(record);
		put(std::move(record), "");
	}

	int64_t random(int64_t least, int64_t most) {
		return std::uniform_int_distribution<int64_t>(least, most)(random_);
	}

	/* Mostly short, now and then long. */
	int64_t random_duration() {
		return std::llround(std::lognormal_distribution<double>(5, 1.3)(random_));
	}

	std::vector<kaq::Record> records_;
	std::mt19937_64 random_{42};
};

/* The value that the share of all values does not exceed. */
inline int64_t exact_percentile(std::vector<int64_t> values, double share) {
	std::sort(values.begin(), values.end());
	auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(values.size())));
	return values.at(std::max<size_t>(rank, 1) - 1);
}

/* Within 1 % and half a millisecond. */
inline void expect_percentiles(const nlohmann::json &row, const std::vector<int64_t> &durations) {
	for (auto [name, share] : {std::pair("p50_ms", 0.5), {"p95_ms", 0.95}, {"p99_ms", 0.99}}) {
		auto exact = static_cast<double>(exact_percentile(durations, share));
		EXPECT_NEAR(exact, row.at(name).get<double>(), exact * 0.01 + 0.5 + 1e-6) << name;
	}
	EXPECT_EQ(*std::max_element(durations.begin(), durations.end()), row.at("longest_ms"));
}

/* The row whose member is that text. */
inline nlohmann::json row_of(const nlohmann::json &rows, const char *member,
							 const std::string &text) {
	for (const nlohmann::json &row : rows) {
		if (row.at(member) == text) {
			return row;
		}
	}
	ADD_FAILURE() << "no row with " << member << " " << text << " in " << rows.dump();
	return nlohmann::json::object();
}

} // namespace kaq_test
