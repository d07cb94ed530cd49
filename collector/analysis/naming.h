/*
 * Names under which requests are counted: few, however many pages a site has. What tells one page
 * from another of its kind (numbers, hashes, dates, addresses, tokens) becomes '*'; applications
 * with one entry for everything are named by the parameter that chooses the page. No state; any
 * thread.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kaq {

/* A rule of the configuration. Both patterns are globs: '*' is any text, '?' any character. */
struct NamingRule {
	std::string application; /* empty: every one */
	std::string path;        /* of the request, without its query */
	std::string name;        /* what to call it; empty: as without a rule, with the parameters */
	std::vector<std::string> parameters; /* of the query that belong into the name, in this order */
	std::string title = {}; /* a parameter before them, the title of a wiki's page: of it the name
							   has what tells kinds of pages apart; empty: none */
};

/* For WordPress, MediaWiki, phpMyAdmin and DokuWiki. They come after those of the configuration. */
const std::vector<NamingRule> &usual_naming_rules();
std::vector<NamingRule> with_usual_rules(std::vector<NamingRule> rules);

/* The first rule whose patterns match; null if none does. It lives as long as the rules. */
const NamingRule *naming_rule(std::string_view application, std::string_view path,
							  const std::vector<NamingRule> &rules);

/* Of the rules the first one counts whose patterns match. A name is at most 256 bytes long. */
std::string transaction_name(std::string_view application, std::string_view path,
							 std::string_view query, const std::vector<NamingRule> &rules);

/* The path with '*' for what varies. */
std::string normalised_path(std::string_view path);

/* Whether a word is a number, a date, a hash, an address or a token, and varies for that. */
bool is_varying(std::string_view word);

/* Whether text matches a glob. Takes time in proportion to the product of their lengths at most. */
bool matches_glob(std::string_view text, std::string_view glob);

} // namespace kaq
