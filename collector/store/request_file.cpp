#include "store/request_file.h"

#include <sqlite3.h>
#include <xxhash.h>

#include <algorithm>

#include "store/request_reading.h"
#include "store/schema.h"
#include "util/varint.h"

namespace kaq {
namespace {

constexpr const char *kAddRequest =
	"INSERT INTO requests VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)";

uint64_t hash_of(std::string_view text, uint64_t seed) {
	return XXH3_64bits_withSeed(text.data(), text.size(), seed);
}

std::string joined(const std::vector<std::string> &words) {
	std::string text;
	for (const std::string &word : words) {
		text += (text.empty() ? "" : " ") + word;
	}
	return text;
}

int64_t flags_of(const Record &record) {
	return (record.summary.is_web ? kFlagWeb : 0) | (record.summary.is_failed ? kFlagFailed : 0) |
		   (record.serving == Serving::kOneAtATime ? kFlagOneAtATime : 0) |
		   (record.serving == Serving::kThreads ? kFlagThreads : 0);
}

/* What is wrong is what was to be written, and not where. */
bool is_of_row(const SQLite::Exception &error) {
	switch (error.getErrorCode()) {
	case SQLITE_CONSTRAINT:
	case SQLITE_ERROR:
	case SQLITE_MISMATCH:
	case SQLITE_MISUSE:
	case SQLITE_RANGE:
	case SQLITE_TOOBIG:
		return true;
	default:
		return false;
	}
}

void run(SQLite::Statement &statement) {
	statement.exec();
	statement.reset();
}

} // namespace

std::string text_set_to_bytes(const std::vector<int64_t> &sorted) {
	std::string bytes;
	int64_t last = 0;
	for (int64_t id : sorted) {
		append_varint(bytes, static_cast<uint64_t>(id - last));
		last = id;
	}
	return bytes;
}

std::vector<int64_t> text_set_from_bytes(std::string_view bytes) {
	std::vector<int64_t> ids;
	int64_t last = 0;
	for (uint64_t step; take_varint(bytes, step);) {
		last += static_cast<int64_t>(step);
		ids.push_back(last);
	}
	return ids;
}

RequestFile::RequestFile(const std::string &path)
	: database_(open_to_write(path, kRequestTables)), add_request_(*database_, kAddRequest),
	  add_document_(*database_, "INSERT INTO documents VALUES(?,?)"),
	  add_name_(*database_, "INSERT INTO names VALUES(?,?,?)"),
	  add_text_(*database_, "INSERT INTO texts VALUES(?,?,?)"),
	  add_index_(*database_, "INSERT INTO texts_index(rowid, text) VALUES(?,?)"),
	  add_set_(*database_, "INSERT INTO text_sets VALUES(?,?)") {
	load_names();
}

RequestFile::~RequestFile() = default;

int64_t RequestFile::next_of(const std::string &table, const std::string &column) {
	return database_->execAndGet("SELECT coalesce(max(" + column + "), 0) + 1 FROM " + table)
		.getInt64();
}

/* Of a file that is written on after a restart. */
void RequestFile::load_names() {
	SQLite::Statement range(*database_, "SELECT first, last FROM about");
	if (range.executeStep()) {
		first_ = range.getColumn(0).getInt64();
		last_ = range.getColumn(1).getInt64();
	}
	counts_ = count_file(*database_);
	next_row_ = next_of("requests", "row");
	next_name_ = next_of("names", "id");
	next_text_ = next_of("texts", "id");
	next_set_ = next_of("text_sets", "id");
	SQLite::Statement names(*database_, "SELECT id, kind, text FROM names");
	while (names.executeStep()) {
		char kind = static_cast<char>(names.getColumn(1).getInt());
		name_ids_[kind + names.getColumn(2).getString()] = names.getColumn(0).getInt64();
	}
	SQLite::Statement texts(*database_, "SELECT id, kind, text FROM texts");
	while (texts.executeStep()) {
		uint64_t hash = hash_of(texts.getColumn(2).getString(), texts.getColumn(1).getUInt());
		text_ids_[hash] = texts.getColumn(0).getInt64();
	}
	SQLite::Statement sets(*database_, "SELECT id, members FROM text_sets");
	while (sets.executeStep()) {
		set_ids_[hash_of(sets.getColumn(1).getString(), 0)] = sets.getColumn(0).getInt64();
	}
}

void RequestFile::begin() {
	database_->exec("BEGIN IMMEDIATE");
}

void RequestFile::commit() {
	if (is_range_new_) {
		SQLite::Statement update(*database_, "UPDATE about SET first = ?, last = ?");
		update.bind(1, first_);
		update.bind(2, last_);
		update.exec();
		is_range_new_ = false;
	}
	database_->exec("COMMIT");
}

void RequestFile::roll_back() noexcept {
	try {
		database_->exec("ROLLBACK");
	} catch (const SQLite::Exception &) {
		/* It was never begun, or the failure has ended it already. */
	}
}

int64_t RequestFile::name_id(NameKind kind, std::string_view text) {
	std::string key(1, static_cast<char>(kind));
	key += text;
	auto found = name_ids_.find(key);
	if (found != name_ids_.end()) {
		return found->second;
	}
	int64_t id = next_name_++;
	add_name_.bind(1, id);
	add_name_.bind(2, static_cast<int>(kind));
	add_name_.bind(3, std::string(text));
	run(add_name_);
	new_names_.push_back(key);
	name_ids_.emplace(std::move(key), id);
	return id;
}

int64_t RequestFile::text_id(const RequestText &text) {
	uint64_t hash = hash_of(text.text, static_cast<uint64_t>(text.kind));
	auto [place, is_new] = text_ids_.try_emplace(hash, next_text_);
	if (is_new) {
		new_texts_.push_back(hash);
		next_text_++;
		add_text_.bind(1, place->second);
		add_text_.bind(2, static_cast<int>(text.kind));
		add_text_.bindNoCopy(3, text.text);
		run(add_text_);
		add_index_.bind(1, place->second);
		add_index_.bindNoCopy(2, text.text);
		run(add_index_);
	}
	return place->second;
}

int64_t RequestFile::text_set_id(const std::vector<RequestText> &texts) {
	std::vector<int64_t> ids;
	ids.reserve(texts.size());
	for (const RequestText &text : texts) {
		ids.push_back(text_id(text));
	}
	std::sort(ids.begin(), ids.end());
	std::string bytes = text_set_to_bytes(ids);
	uint64_t hash = hash_of(bytes, 0);
	auto [place, is_new] = set_ids_.try_emplace(hash, next_set_);
	if (is_new) {
		new_sets_.push_back(hash);
		next_set_++;
		add_set_.bind(1, place->second);
		add_set_.bindNoCopy(2, bytes.data(), static_cast<int>(bytes.size()));
		run(add_set_);
	}
	return place->second;
}

void RequestFile::note_start(int64_t start) {
	is_range_new_ = is_range_new_ || start < first_ || start > last_;
	first_ = std::min(first_, start);
	last_ = std::max(last_, start);
}

void RequestFile::bind_summary(const Summary &summary, int64_t flags) {
	add_request_.bindNoCopy(2, summary.id);
	add_request_.bindNoCopy(3, summary.trace_id);
	int column = 4;
	for (int64_t number :
		 {summary.start, summary.duration, summary.cpu, summary.memory, summary.status,
		  summary.spans, summary.queries, summary.calls, summary.failures, summary.query_time,
		  summary.external_time, flags, name_id(NameKind::kApplication, summary.application),
		  name_id(NameKind::kName, summary.name)}) {
		add_request_.bind(column++, number);
	}
}

void RequestFile::forget_new() {
	for (const std::string &name : new_names_) {
		name_ids_.erase(name);
	}
	for (uint64_t text : new_texts_) {
		text_ids_.erase(text);
	}
	for (uint64_t set : new_sets_) {
		set_ids_.erase(set);
	}
}

bool RequestFile::add_if_possible(const Record &record, std::string &reason) {
	RowCounts counts = counts_;
	database_->exec("SAVEPOINT request");
	try {
		add(record);
		database_->exec("RELEASE request");
		return true;
	} catch (const SQLite::Exception &error) {
		if (!is_of_row(error)) {
			throw;
		}
		reason = error.what();
	}
	for (SQLite::Statement *statement :
		 {&add_request_, &add_document_, &add_name_, &add_text_, &add_index_, &add_set_}) {
		statement->tryReset();
	}
	database_->exec("ROLLBACK TO request");
	database_->exec("RELEASE request");
	forget_new();
	counts_ = counts;
	return false;
}

void RequestFile::add(const Record &record) {
	const Summary &summary = record.summary;
	new_names_.clear();
	new_texts_.clear();
	new_sets_.clear();
	int64_t row = next_row_++;
	add_request_.bind(1, row);
	bind_summary(summary, flags_of(record));
	add_request_.bind(18, name_id(NameKind::kHost, record.host));
	add_request_.bind(19, name_id(NameKind::kMethod, summary.method));
	add_request_.bind(20, name_id(NameKind::kInstance, record.instance));
	add_request_.bind(21, name_id(NameKind::kFindings, joined(record.verdict.kinds)));
	add_request_.bind(22, record.verdict.gain);
	add_request_.bind(23, text_set_id(record.texts));
	add_request_.bindNoCopy(24, record.verdict.sentence);
	add_request_.bindNoCopy(25, summary.path);
	run(add_request_);
	counts_.requests++;
	if (!record.document.empty()) {
		add_document_.bind(1, row);
		add_document_.bindNoCopy(2, record.document.data(),
								 static_cast<int>(record.document.size()));
		run(add_document_);
		counts_.documents++;
	}
	note_start(summary.start);
}

} // namespace kaq
