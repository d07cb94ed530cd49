#include "model/payload_reader.h"

#include <simdjson.h>

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "util/base64.h"
#include "util/key_table.h"
#include "util/utf8.h"

namespace kaq {
namespace {

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

/* The extension's own limit on spans is 10 000 unless a site has raised it. */
constexpr size_t kMostSpans = 200000;
/* That many spans have fewer. Each takes up to 16 bytes while it is read. */
constexpr size_t kMostValues = 6000000;
/* What was needed for a longer document is given back. */
constexpr size_t kLargeDocument = 4 * 1024 * 1024;
/* Of the lists and maps in one parameter. */
constexpr int kDeepestField = 32;
constexpr size_t kMostFields = 10000;
constexpr size_t kLongestName = 1024;
/* What the lists and maps of a document may take: what the extension writes takes less than twice
 * its length, but "1," can be told as many, each with the names around it. */
constexpr size_t kLeastRoom = 1024 * 1024;
constexpr size_t kRoomPerByte = 4;
/* A span of the extension is longer; so many shorter ones may be in any document. */
constexpr size_t kShortestSpan = 32;
constexpr size_t kShortSpans = 1000;

/* The memory that is left for one document's lists and maps. */
class Room {
public:
	explicit Room(size_t document) : left_(kLeastRoom + kRoomPerByte * document) {
	}

	/* False if that is too much; then there is none for anything else either. */
	bool take(size_t bytes) {
		is_full_ = is_full_ || bytes > left_;
		left_ -= is_full_ ? 0 : bytes;
		return !is_full_;
	}
	bool is_full() const {
		return is_full_;
	}
	/* Something was left out for another reason. */
	void note_cut() {
		was_cut_ = true;
	}
	bool was_cut() const {
		return was_cut_ || is_full_;
	}

private:
	size_t left_;
	bool is_full_ = false;
	bool was_cut_ = false;
};

/* Not longer than a name may be, and whole characters. */
std::string_view cut_name(std::string_view name) {
	size_t end = std::min(name.size(), kLongestName);
	while (end > 0 && end < name.size() && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80) {
		end--;
	}
	return name.substr(0, end);
}

/* Reads members of a JSON object and keeps their texts. A member of another type counts as
 * missing. */
class MemberReader {
public:
	MemberReader(TextArena &texts, Room &room) : texts_(texts), room_(room) {
	}

	std::string_view text(const element &value) const {
		std::string_view found;
		return value.get_string().get(found) == simdjson::SUCCESS ? texts_.keep(found)
																  : std::string_view();
	}

	static int64_t number(const element &value) {
		int64_t whole;
		if (value.get_int64().get(whole) == simdjson::SUCCESS) {
			return whole;
		}
		uint64_t large;
		return value.get_uint64().get(large) == simdjson::SUCCESS
				   ? std::numeric_limits<int64_t>::max()
				   : 0;
	}

	static int32_t small_number(const element &value) {
		return static_cast<int32_t>(
			std::clamp<int64_t>(number(value), 0, std::numeric_limits<int32_t>::max()));
	}

	/* Far enough for everybody, and small enough to be calculated with. */
	static int64_t time(const element &value) {
		constexpr int64_t kLatest = int64_t{1} << 42;
		return std::clamp<int64_t>(number(value), 0, kLatest);
	}

	static bool truth(const element &value) {
		bool is_true;
		return value.get_bool().get(is_true) == simdjson::SUCCESS ? is_true : number(value) != 0;
	}

	/* Headers or parameters, lists and maps in them included. */
	std::vector<Field> fields(const element &value) const {
		std::vector<Field> found;
		add_elements(found, "", value, 0);
		return found;
	}

	std::vector<Measure> measures(const element &value) const {
		std::vector<Measure> found;
		object members;
		if (value.get_object().get(members) == simdjson::SUCCESS) {
			for (auto member : members) {
				double number;
				if (member.value.get_double().get(number) == simdjson::SUCCESS &&
					room_.take(sizeof(Measure))) {
					found.push_back({texts_.keep(member.key), number});
				}
			}
		}
		return found;
	}

	std::vector<Failure> failures(const element &value) const;
	std::vector<StackFrame> stack(const element &value) const;

private:
	void add(std::vector<Field> &found, const std::string &name, const element &value,
			 int depth) const {
		if (found.size() >= kMostFields || depth > kDeepestField) {
			room_.note_cut();
			return;
		}
		element_type type = value.type();
		if (type == element_type::ARRAY || type == element_type::OBJECT) {
			add_elements(found, name, value, depth);
			return;
		}
		std::string other;
		if (type != element_type::STRING) {
			other = simdjson::minify(value);
		}
		if (room_.take(sizeof(Field) + name.size() + other.size())) {
			found.push_back({texts_.keep(name), other.empty() ? text(value) : texts_.keep(other)});
		}
	}

	/* What is too long ends where it does not fit. */
	std::string inner_name(const std::string &outer, std::string_view inner) const {
		size_t around = outer.empty() ? 0 : outer.size() + 2;
		if (around + inner.size() <= kLongestName) {
			return outer.empty() ? std::string(inner) : outer + "[" + std::string(inner) + "]";
		}
		room_.note_cut();
		return outer.empty() ? std::string(cut_name(inner)) : outer;
	}

	void add_elements(std::vector<Field> &found, const std::string &name, const element &value,
					  int depth) const {
		object members;
		array list;
		if (value.get_object().get(members) == simdjson::SUCCESS) {
			for (auto member : members) {
				if (room_.is_full()) {
					return;
				}
				add(found, inner_name(name, member.key), member.value, depth + 1);
			}
		} else if (value.get_array().get(list) == simdjson::SUCCESS) {
			size_t at = 0;
			for (element each : list) {
				if (room_.is_full()) {
					return;
				}
				add(found, inner_name(name, std::to_string(at++)), each, depth + 1);
			}
		}
	}

	TextArena &texts_;
	Room &room_;
};

std::vector<Failure> MemberReader::failures(const element &value) const {
	std::vector<Failure> found;
	array list;
	if (value.get_array().get(list) != simdjson::SUCCESS) {
		return found;
	}
	for (element each : list) {
		object members;
		if (each.get_object().get(members) != simdjson::SUCCESS || !room_.take(sizeof(Failure))) {
			continue;
		}
		Failure failure;
		for (auto member : members) {
			std::string_view key = member.key;
			if (key == "err_clz") {
				failure.type = text(member.value);
			} else if (key == "filename") {
				failure.file = text(member.value);
			} else if (key == "linenumber") {
				failure.line = number(member.value);
			} else if (key == "time") {
				failure.time = time(member.value);
			} else if (key == "level") {
				failure.level = text(member.value);
			} else if (key == "str") {
				failure.message = text(member.value);
			}
		}
		found.push_back(failure);
	}
	return found;
}

/* Each frame is a list of class, function, file and line. */
std::vector<StackFrame> MemberReader::stack(const element &value) const {
	std::vector<StackFrame> found;
	array list;
	if (value.get_array().get(list) != simdjson::SUCCESS) {
		return found;
	}
	for (element each : list) {
		array parts;
		if (each.get_array().get(parts) != simdjson::SUCCESS || parts.size() != 4 ||
			!room_.take(sizeof(StackFrame))) {
			continue;
		}
		StackFrame frame;
		frame.type = text(parts.at(0).value());
		frame.function = text(parts.at(1).value());
		frame.file = text(parts.at(2).value());
		frame.line = number(parts.at(3).value());
		found.push_back(frame);
	}
	return found;
}

using E = element;
using R = MemberReader;
using S = Span;
using T = Transaction;
using SpanSetter = void (*)(S &, const R &, const E &);
using TransactionSetter = void (*)(T &, const R &, const E &);

/* What each member of a span sets. */
const KeyTable<SpanSetter> kSpanMembers = {
	{"st", [](S &s, const R &r, const E &v) { s.start = r.time(v); }},
	{"et", [](S &s, const R &r, const E &v) { s.end = r.time(v); }},
	{"fn", [](S &s, const R &r, const E &v) { s.name = r.text(v); }},
	{"cn", [](S &s, const R &r, const E &v) { s.component = r.text(v); }},
	{"ex", [](S &s, const R &r, const E &v) { s.is_external = r.truth(v); }},
	{"ar", [](S &s, const R &r, const E &v) { s.is_async = r.truth(v); }},
	{"if", [](S &s, const R &r, const E &v) { s.is_failed |= r.truth(v); }},
	{"ie", [](S &s, const R &r, const E &v) { s.is_failed |= r.truth(v); }},
	{"si", [](S &s, const R &r, const E &v) { s.id = r.text(v); }},
	{"psi", [](S &s, const R &r, const E &v) { s.parent_id = r.text(v); }},
	{"qs", [](S &s, const R &r, const E &v) { s.query = r.text(v); }},
	{"sv", [](S &s, const R &r, const E &v) { s.values = r.small_number(v); }},
	{"esc", [](S &s, const R &r, const E &v) { s.status = r.number(v); }},
	{"hn", [](S &s, const R &r, const E &v) { s.host = r.text(v); }},
	{"pn", [](S &s, const R &r, const E &v) { s.port = r.number(v); }},
	{"dn", [](S &s, const R &r, const E &v) { s.database = r.text(v); }},
	{"erqh", [](S &s, const R &r, const E &v) { s.sent_headers = r.fields(v); }},
	{"ersh", [](S &s, const R &r, const E &v) { s.received_headers = r.fields(v); }},
	{"ei", [](S &s, const R &r, const E &v) { s.failures = r.failures(v); }},
	{"mst", [](S &s, const R &r, const E &v) { s.stack = r.stack(v); }},
};

/* What each member of the section about the request sets. */
const KeyTable<TransactionSetter> kTransactionMembers = {
	{"t_name", [](T &t, const R &r, const E &v) { t.name = r.text(v); }},
	{"normalised_tname", [](T &t, const R &r, const E &v) { t.normalised_name = r.text(v); }},
	{"http_host", [](T &t, const R &r, const E &v) { t.host = r.text(v); }},
	{"http_query_str", [](T &t, const R &r, const E &v) { t.query_string = r.text(v); }},
	{"s_time", [](T &t, const R &r, const E &v) { t.start = r.time(v); }},
	{"e_time", [](T &t, const R &r, const E &v) { t.end = r.time(v); }},
	{"http_method_name", [](T &t, const R &r, const E &v) { t.method = r.text(v); }},
	{"bytes_in", [](T &t, const R &r, const E &v) { t.bytes_in = r.number(v); }},
	{"bytes_out", [](T &t, const R &r, const E &v) { t.bytes_out = r.number(v); }},
	{"transaction_type", [](T &t, const R &r, const E &v) { t.is_web = r.truth(v); }},
	{"thread_id", [](T &t, const R &r, const E &v) { t.thread = r.number(v); }},
	{"httpcode", [](T &t, const R &r, const E &v) { t.status = r.number(v); }},
	{"cputime", [](T &t, const R &r, const E &v) { t.cpu = r.number(v); }},
	{"memalloc", [](T &t, const R &r, const E &v) { t.memory = r.number(v); }},
	{"trace_id", [](T &t, const R &r, const E &v) { t.trace_id = r.text(v); }},
	{"session_id", [](T &t, const R &r, const E &v) { t.session_id = r.text(v); }},
	{"http_headers", [](T &t, const R &r, const E &v) { t.request_headers = r.fields(v); }},
	{"http_input_params", [](T &t, const R &r, const E &v) { t.parameters = r.fields(v); }},
	{"http_resp_headers", [](T &t, const R &r, const E &v) { t.response_headers = r.fields(v); }},
	{"bckgrnd_input_params", [](T &t, const R &r, const E &v) { t.parameters = r.fields(v); }},
	{"custom_params", [](T &t, const R &r, const E &v) { t.custom_parameters = r.fields(v); }},
};

void read_origin(Transaction &transaction, const MemberReader &reader, const element &value) {
	element found;
	if (value["async"].get(found) == simdjson::SUCCESS) {
		transaction.is_async = reader.truth(found);
	}
	if (value["flow"].get(found) == simdjson::SUCCESS) {
		transaction.flow = reader.text(found);
	}
}

void read_transaction_info(Transaction &transaction, const MemberReader &reader,
						   const object &info) {
	for (auto member : info) {
		const TransactionSetter *set = kTransactionMembers.find(member.key);
		if (set != nullptr) {
			(*set)(transaction, reader, member.value);
		} else if (member.key == "origin") {
			read_origin(transaction, reader, member.value);
		}
	}
}

void read_application_info(Transaction &transaction, const MemberReader &reader,
						   const object &info) {
	for (auto member : info) {
		if (member.key == "application_name") {
			transaction.application = reader.text(member.value);
		} else if (member.key == "application_group") {
			transaction.application_group = reader.text(member.value);
		} else if (member.key == "instance_id") {
			transaction.instance_id = reader.text(member.value);
		}
	}
}

/* Parents stand before their children; a span whose parent did not arrive hangs on the root. */
void join_spans(std::vector<Span> &spans) {
	std::unordered_map<std::string_view, int32_t> by_id;
	by_id.reserve(spans.size());
	for (size_t i = 0; i < spans.size(); i++) {
		if (i > 0) {
			auto parent = by_id.find(spans[i].parent_id);
			spans[i].parent = parent == by_id.end() ? 0 : parent->second;
		}
		by_id.emplace(spans[i].id, static_cast<int32_t>(i));
	}
}

/* Whether these are more spans than a document of that many bytes can hold. */
bool are_too_many(size_t spans, size_t bytes) {
	return spans > kMostSpans || (spans > kShortSpans && spans > bytes / kShortestSpan);
}

void read_spans(Transaction &transaction, const MemberReader &reader, const array &list) {
	transaction.spans.reserve(list.size());
	for (element each : list) {
		object members;
		if (each.get_object().get(members) != simdjson::SUCCESS) {
			continue;
		}
		Span &span = transaction.spans.emplace_back();
		for (auto member : members) {
			const SpanSetter *set = kSpanMembers.find(member.key);
			if (set != nullptr) {
				(*set)(span, reader, member.value);
			}
		}
	}
	join_spans(transaction.spans);
}

/* Values and names of a document, no fewer than there are. */
size_t values_of(const std::string &json) {
	size_t values = 0;
	bool in_string = false;
	for (size_t at = 0; at < json.size(); at++) {
		char character = json[at];
		if (character == '"') {
			in_string = !in_string;
		} else if (in_string) {
			at += character == '\\' ? 1 : 0;
		} else {
			values += character == ',' || character == ':' || character == '[' || character == '{';
		}
	}
	return values;
}

} // namespace

std::string_view payload_error_name(PayloadError error) {
	constexpr std::string_view kNames[] = {"not-base64", "not-json", "not-a-transaction",
										   "too-many-spans", "too-many-values"};
	return kNames[static_cast<size_t>(error)];
}

void mend_leading_commas(std::string &json) {
	/* Nearly every document has none, and this search is much faster than the walk below. */
	size_t first = json.find("{,");
	if (first == std::string::npos) {
		return;
	}
	bool in_string = false;
	for (size_t at = 0; at < json.size(); at++) {
		char character = json[at];
		if (character == '"') {
			in_string = !in_string;
		} else if (in_string && character == '\\') {
			at++;
		} else if (!in_string && character == '{' && at + 1 < json.size() && json[at + 1] == ',') {
			json[at + 1] = ' ';
		}
	}
}

static_assert(kRoomBehind >= simdjson::SIMDJSON_PADDING);

struct PayloadReader::Parser {
	simdjson::dom::parser parser;
};

PayloadReader::PayloadReader() : parser_(std::make_unique<Parser>()) {
}

PayloadReader::~PayloadReader() = default;

tl::expected<Transaction, PayloadError> PayloadReader::read(std::string_view line) {
	std::optional<std::string> json = decode_base64(line);
	if (!json) {
		return tl::unexpected(PayloadError::kNotBase64);
	}
	bool is_large = json->size() > kLargeDocument;
	auto transaction = read_json(std::move(*json));
	if (is_large) {
		parser_ = std::make_unique<Parser>();
	}
	return transaction;
}

tl::expected<Transaction, PayloadError> PayloadReader::read_json(std::string json) {
	was_cut_ = false;
	if (!simdjson::validate_utf8(json)) {
		json = replace_invalid_utf8(json);
	}
	mend_leading_commas(json);
	if (json.size() / 2 > kMostValues && values_of(json) > kMostValues) {
		return tl::unexpected(PayloadError::kTooManyValues);
	}
	element root;
	if (parser_->parser.parse(json).get(root) != simdjson::SUCCESS) {
		return tl::unexpected(PayloadError::kNotJson);
	}
	object application, info;
	array spans;
	element apm;
	if (root["apm"].get(apm) != simdjson::SUCCESS ||
		apm["application_info"].get(application) != simdjson::SUCCESS ||
		apm["transaction_info"].get(info) != simdjson::SUCCESS ||
		apm["method_info"]["span_info"].get(spans) != simdjson::SUCCESS || spans.size() == 0) {
		return tl::unexpected(PayloadError::kNotATransaction);
	}
	if (are_too_many(spans.size(), json.size())) {
		return tl::unexpected(PayloadError::kTooManySpans);
	}
	Transaction transaction;
	transaction.texts.expect(json.size());
	Room room(json.size());
	MemberReader reader(transaction.texts, room);
	read_application_info(transaction, reader, application);
	read_transaction_info(transaction, reader, info);
	read_spans(transaction, reader, spans);
	element measures;
	if (apm["app_parameters"]["sum"].get(measures) == simdjson::SUCCESS) {
		transaction.sums = reader.measures(measures);
	}
	if (apm["app_parameters"]["average"].get(measures) == simdjson::SUCCESS) {
		transaction.averages = reader.measures(measures);
	}
	was_cut_ = room.was_cut();
	return transaction;
}

} // namespace kaq
