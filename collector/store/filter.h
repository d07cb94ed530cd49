/*
 * Which requests are meant: a condition as a tree and a range of time beside it. A store translates
 * the tree into queries of its own; matches() says what each node means, so that every store finds
 * the same. Times in milliseconds since the Unix epoch. Plain values; any thread.
 *
 * Texts are compared without regard to the case of ASCII letters and byte by byte otherwise, as
 * SQLite's LIKE and NOCASE do.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kaq {

enum class TextField {
	kApplication,
	kName, /* normalised */
	kPath,
	kHost, /* that was asked for */
	kMethod,
	kTraceId,
	kId,
	kVerdict, /* names of the kinds of findings: none or several */
	kCall,    /* hosts of HTTP calls, as host_of() tells them: none or several */
};

enum class NumberField {
	kStatus,   /* 0 for a script of the command line */
	kDuration, /* this and the other times: milliseconds */
	kCpu,
	kMemory, /* bytes */
	kQueries,
	kCalls,
	kSpans,
	kErrors,
	kDatabaseTime,
	kExternalTime,
};

/* Texts that a request has any number of; kAnywhere is all of them, the path and the name. */
enum class WordField { kStatement, kFunction, kError, kAnywhere };

enum class Flag { kFailed, kWeb, kCommandLine };

/*
 * The whole text, one of them if there are several, matches the glob: '*' is any text, '?' any
 * character of UTF-8, and '\' takes the character behind it as it is ('*', '?' and '\' alone have
 * one before them). Never two '*' in a row.
 */
struct TextIs {
	TextField field = TextField::kApplication;
	std::string glob;
};

/* least <= number <= most; everything that is compared is a whole number. */
struct NumberIs {
	static constexpr int64_t kNoLeast = std::numeric_limits<int64_t>::min();
	static constexpr int64_t kNoMost = std::numeric_limits<int64_t>::max();

	NumberField field = NumberField::kDuration;
	int64_t least = kNoLeast;
	int64_t most = kNoMost;
};

/*
 * One text has these words, one directly after the other. Words are what words_of() finds, which is
 * what FTS5 finds with tokenize = "ascii tokenchars '_'"; a Words is a phrase of FTS5, a prefix
 * phrase if is_prefix. At least one.
 */
struct Words {
	WordField field = WordField::kAnywhere;
	std::vector<std::string> words; /* ASCII letters in lower case */
	bool is_prefix = false;         /* the last one is only the beginning of a word */
};

struct FlagIs {
	Flag flag = Flag::kFailed;
};

struct Condition;

/* Without conditions: every request. */
struct And {
	std::vector<Condition> conditions;
};

/* At least two. */
struct Or {
	std::vector<Condition> conditions;
};

struct Not {
	std::shared_ptr<const Condition> condition; /* never null */
};

struct Condition {
	std::variant<And, Or, Not, TextIs, NumberIs, Words, FlagIs> node;
};

/* from <= start of the request < to. */
struct TimeRange {
	static constexpr int64_t kAlways = std::numeric_limits<int64_t>::min();
	static constexpr int64_t kForever = std::numeric_limits<int64_t>::max();

	int64_t from = kAlways;
	int64_t to = kForever;

	bool has(int64_t time) const {
		return from <= time && time < to;
	}
};

struct Filter {
	TimeRange range;
	Condition condition;
};

bool operator==(const Condition &one, const Condition &other);
bool operator==(const Filter &one, const Filter &other);

/* A request as a condition looks at it. */
class RequestView {
public:
	using TextTest = std::function<bool(std::string_view)>;

	virtual ~RequestView() = default;
	virtual int64_t start() const = 0;
	virtual int64_t number(NumberField field) const = 0;
	virtual bool has(Flag flag) const = 0;
	/* Whether a text of this field passes the test. */
	virtual bool has_text(TextField field, const TextTest &test) const = 0;
	/* The same; never asked for kAnywhere. */
	virtual bool has_text(WordField field, const TextTest &test) const = 0;
};

bool matches(const Condition &condition, const RequestView &request);
bool matches(const Filter &filter, const RequestView &request);

/* What TextIs means. Takes time in proportion to the product of the lengths at most. */
bool is_like(std::string_view text, std::string_view glob);

/* The one text that the glob matches; none if it has '*' or '?'. */
std::optional<std::string> literal_of(std::string_view glob);

/* The glob as an operand of SQL's LIKE with ESCAPE '\'. */
std::string like_operand(std::string_view glob);

/* A glob that matches this text alone. */
std::string glob_of(std::string_view literal);

/* Runs of ASCII letters, digits, '_' and all that is not ASCII; ASCII letters in lower case. */
std::vector<std::string> words_of(std::string_view text);

/* What Words means for one text. */
bool has_words(std::string_view text, const Words &words);

/* As a query of FTS5: "from product" or "from prod" *. */
std::string fts_query(const Words &words);

} // namespace kaq
