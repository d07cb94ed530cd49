/*
 * Queries: whatever is written, there is a filter whose canonical form means the same and matches
 * the same, or mistakes that lie within the text and can be explained; and each completion lies
 * within it, too.
 */
#include <cstdint>
#include <cstdlib>
#include <string>

#include "query/completion.h"
#include "query/parser.h"

static constexpr int64_t kNow = 1800000000000;

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

/* A request that has the query itself for all of its texts. */
class Mirror : public kaq::RequestView {
public:
	explicit Mirror(std::string_view text) : text_(text) {
	}
	int64_t start() const override {
		return kNow - 1;
	}
	int64_t number(kaq::NumberField field) const override {
		return static_cast<int64_t>(text_.size()) * (1 + static_cast<int>(field));
	}
	bool has(kaq::Flag flag) const override {
		return flag != kaq::Flag::kCommandLine;
	}
	bool has_text(kaq::TextField, const TextTest &test) const override {
		return test(text_);
	}
	bool has_text(kaq::WordField, const TextTest &test) const override {
		return test(text_);
	}

private:
	std::string_view text_;
};

static void check_completion(std::string_view text, size_t cursor) {
	kaq::Completion completion = kaq::complete_query(text, cursor);
	require(completion.begin <= cursor && cursor <= completion.end);
	require(completion.end <= text.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	std::string text(reinterpret_cast<const char *>(data), size);
	for (size_t cursor = 0; cursor <= size && cursor < 64; cursor++) {
		check_completion(text, cursor);
	}
	auto filter = kaq::parse_query(text, {kNow});
	if (!filter) {
		require(!filter.error().empty() && filter.error().size() <= 8);
		for (const kaq::Mistake &mistake : filter.error()) {
			require(mistake.column >= 1 && mistake.column <= size + 1 && !mistake.text.empty());
		}
		require(!kaq::explain(text, filter.error()).empty());
		return 0;
	}
	std::string canonical = kaq::to_text(*filter);
	auto again = kaq::parse_query(canonical, {0, 16 * kaq::kLongestQuery});
	require(again && *again == *filter);
	require(kaq::to_text(*again) == canonical);
	Mirror mirror(text);
	require(matches(*filter, mirror) == matches(*again, mirror));
	return 0;
}
