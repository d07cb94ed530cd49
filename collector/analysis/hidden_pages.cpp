#include "analysis/hidden_pages.h"

#include <xxhash.h>

#include <algorithm>

#include "analysis/naming.h"
#include "util/control_character.h"
#include "util/query_string.h"

namespace kaq {
namespace {

constexpr size_t kLongestQuery = 4096;
constexpr size_t kLongestWord = 512; /* of what is told */
constexpr size_t kLongestParameter = 64;
/* A page is one that is asked for again. */
constexpr uint64_t kFewestOfAPage = 3;
/* Of a parameter that chooses the page: what most requests have, with values that are few. */
constexpr uint64_t kOneOutOf = 2;
constexpr double kLeastShareOfPages = 0.8;

uint64_t hash_of(std::string_view text, uint64_t seed = 0) {
	return XXH3_64bits_withSeed(text.data(), text.size(), seed);
}

/* The one with this key; where there are enough already it takes the place of the one with the
 * fewest requests. */
template <typename Entry> Entry &entry_of(std::vector<Entry> &entries, uint64_t key, size_t most) {
	auto found = std::find_if(entries.begin(), entries.end(),
							  [key](const Entry &each) { return each.key == key; });
	if (found != entries.end()) {
		return *found;
	}
	if (entries.size() < most) {
		entries.emplace_back();
		found = entries.end() - 1;
	} else {
		found = std::min_element(
			entries.begin(), entries.end(),
			[](const Entry &one, const Entry &other) { return one.requests < other.requests; });
		*found = Entry();
	}
	found->key = key;
	return *found;
}

/* What can be written into a configuration as it is. */
bool is_plain(std::string_view name) {
	return !name.empty() && name.size() <= kLongestParameter &&
		   name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
								  "_-.[]") == std::string_view::npos;
}

/* The part of a name that is the path's: names with a parameter have more. */
std::string_view path_of(std::string_view transaction) {
	return transaction.substr(0, transaction.find('?'));
}

/* Of which there can be a rule, within quotes. */
bool can_be_told(std::string_view application, std::string_view transaction,
				 std::string_view path) {
	bool is_short = transaction.size() <= kLongestWord && application.size() <= kLongestWord &&
					path.size() <= kLongestWord;
	std::string_view pattern = path_of(transaction);
	bool is_writable = std::none_of(pattern.begin(), pattern.end(), [](char each) {
		return each == '\'' || is_control_character(each);
	});
	return is_short && is_writable && matches_glob(path, pattern);
}

bool is_in(std::string_view transaction, std::string_view parameter) {
	size_t mark = transaction.find('?');
	return mark != std::string_view::npos &&
		   !query_parameter(transaction.substr(mark + 1), parameter).empty();
}

} // namespace

void HiddenPagesFinder::note(std::string_view application, std::string_view transaction,
							 std::string_view path, std::string_view query) {
	if (query.empty() || !can_be_told(application, transaction, path)) {
		return;
	}
	query = query.substr(0, kLongestQuery);
	std::lock_guard lock(mutex_);
	Name &name = entry_of(names_, hash_of(transaction, hash_of(application)), kMostNames);
	if (name.requests++ == 0) {
		name.application = application;
		name.transaction = transaction;
		name.path = path_of(transaction);
	}
	for (size_t count = 0; !query.empty() && count < 2 * kMostParameters; count++) {
		std::string_view field = query.substr(0, query.find('&'));
		query.remove_prefix(std::min(field.size() + 1, query.size()));
		size_t end = field.find('=');
		if (end == std::string_view::npos || end + 1 == field.size() ||
			!is_plain(field.substr(0, end)) || is_in(transaction, field.substr(0, end))) {
			continue;
		}
		Parameter &parameter =
			entry_of(name.parameters, hash_of(field.substr(0, end)), kMostParameters);
		if (parameter.requests++ == 0) {
			parameter.name = field.substr(0, end);
		}
		/* As a name would have it: all numbers are one page. */
		std::string page = normalised_path(percent_decoded(field.substr(end + 1)));
		entry_of(parameter.pages, hash_of(page), kMostPages).requests++;
	}
}

/* None if the parameter does not choose the page. */
size_t HiddenPagesFinder::pages_of(const Name &name, const Parameter &parameter) {
	size_t pages = 0;
	uint64_t requests = 0;
	for (const Page &page : parameter.pages) {
		if (page.requests >= kFewestOfAPage) {
			pages++;
			requests += page.requests;
		}
	}
	bool is_usual = parameter.requests * kOneOutOf >= name.requests;
	bool has_few = static_cast<double>(requests) >=
				   kLeastShareOfPages * static_cast<double>(parameter.requests);
	return is_usual && has_few ? pages : 0;
}

std::vector<HiddenPages> HiddenPagesFinder::found() const {
	std::vector<HiddenPages> all;
	std::lock_guard lock(mutex_);
	for (const Name &name : names_) {
		HiddenPages best{name.application, name.transaction, name.path, "", 0, name.requests};
		for (const Parameter &parameter : name.parameters) {
			size_t pages = pages_of(name, parameter);
			if (pages > best.pages) {
				best.pages = pages;
				best.parameter = parameter.name;
			}
		}
		if (best.pages >= kFewestPages && name.requests >= kFewestRequests) {
			all.push_back(std::move(best));
		}
	}
	std::sort(all.begin(), all.end(), [](const HiddenPages &one, const HiddenPages &other) {
		return one.requests > other.requests;
	});
	return all;
}

} // namespace kaq
