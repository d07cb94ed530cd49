#include "store/request_reading.h"

#include <sqlite3.h>

#include "store/filter_sql.h"
#include "store/request_file.h"
#include "store/time_limit.h"
#include "util/compression.h"

namespace kaq {
namespace {

/* Far above what the data port takes. */
constexpr size_t kLongestDocument = 256 * 1024 * 1024;
std::vector<std::string> split_words(const std::string &text) {
	std::vector<std::string> words;
	for (size_t begin = 0; begin < text.size();) {
		size_t end = std::min(text.find(' ', begin), text.size());
		words.push_back(text.substr(begin, end - begin));
		begin = end + 1;
	}
	return words;
}

void add_texts(SQLite::Database &database, int64_t row, Record &record) {
	SQLite::Statement set(database, "SELECT members FROM text_sets WHERE id = (SELECT texts FROM "
									"requests WHERE row = ?)");
	set.bind(1, row);
	std::string members = set.executeStep() ? set.getColumn(0).getString() : std::string();
	SQLite::Statement text(database, "SELECT kind, text FROM texts WHERE id = ?");
	for (int64_t id : text_set_from_bytes(members)) {
		text.bind(1, id);
		if (text.executeStep()) {
			record.texts.push_back(
				{static_cast<TextKind>(text.getColumn(0).getInt()), text.getColumn(1).getString()});
		}
		text.reset();
	}
}

void add_document(SQLite::Database &database, int64_t row, Record &record) {
	SQLite::Statement document(database, "SELECT document FROM documents WHERE row = ?");
	document.bind(1, row);
	if (document.executeStep()) {
		record.document = document.getColumn(0).getString();
	}
}

/* Comes after everything that begins with the text: identifiers are hexadecimal. */
std::string end_of_prefix(const std::string &begin) {
	return begin + "\x7f";
}

} // namespace

TimeRange range_of_file(SQLite::Database &database) {
	SQLite::Statement range(database, "SELECT first, last FROM about");
	if (!range.executeStep()) {
		return {};
	}
	return {range.getColumn(0).getInt64(), range.getColumn(1).getInt64() + 1};
}

FileMatches search_file(SQLite::Database &database, const Search &search, Deadline deadline) {
	FileMatches found;
	TimeLimit limit(database, deadline);
	const char *rank = search.order == Search::Order::kNewest ? "start" : "duration";
	try {
		SqlCondition condition = to_sql(search.filter, database);
		SQLite::Statement rows(database, std::string("SELECT ") + rank +
											 ", row FROM requests WHERE " + condition.text +
											 " ORDER BY 1 DESC, row DESC LIMIT ?");
		condition.bind(rows, 1);
		rows.bind(static_cast<int>(condition.values.size()) + 1,
				  static_cast<int64_t>(search.limit));
		while (rows.executeStep()) {
			found.matches.push_back({rows.getColumn(0).getInt64(), rows.getColumn(1).getInt64()});
		}
		found.looked_at = last_row_of(database);
	} catch (const SQLite::Exception &error) {
		if (error.getErrorCode() != SQLITE_INTERRUPT) {
			throw;
		}
		found.is_partial = true;
	}
	return found;
}

RequestReader::RequestReader(SQLite::Database &database)
	: find_(database,
			"SELECT start, duration, cpu, memory, status, spans, queries, calls, failures, "
			"query_time, external_time, gain, flags, id, trace, path, verdict, "
			"(SELECT text FROM names WHERE id = application), "
			"(SELECT text FROM names WHERE id = name), (SELECT text FROM names WHERE id = host), "
			"(SELECT text FROM names WHERE id = method), "
			"(SELECT text FROM names WHERE id = instance), "
			"(SELECT text FROM names WHERE id = kinds), "
			"EXISTS (SELECT 1 FROM documents d WHERE d.row = requests.row) "
			"FROM requests WHERE row = ?") {
}

std::optional<RequestRow> RequestReader::read(int64_t row) {
	find_.reset();
	find_.bind(1, row);
	if (!find_.executeStep()) {
		return std::nullopt;
	}
	RequestRow request;
	Summary &summary = request.summary;
	int column = 0;
	int64_t flags = 0;
	for (int64_t *number :
		 {&summary.start, &summary.duration, &summary.cpu, &summary.memory, &summary.status,
		  &summary.spans, &summary.queries, &summary.calls, &summary.failures, &summary.query_time,
		  &summary.external_time, &request.verdict.gain, &flags}) {
		*number = find_.getColumn(column++).getInt64();
	}
	std::string kinds;
	for (std::string *text : {&summary.id, &summary.trace_id, &summary.path,
							  &request.verdict.sentence, &summary.application, &summary.name,
							  &request.host, &summary.method, &request.instance, &kinds}) {
		*text = find_.getColumn(column++).getString();
	}
	request.has_document = find_.getColumn(column).getInt() != 0;
	request.verdict.kinds = split_words(kinds);
	summary.is_web = (flags & kFlagWeb) != 0;
	summary.is_failed = (flags & kFlagFailed) != 0;
	request.serving = (flags & kFlagOneAtATime) != 0 ? Serving::kOneAtATime
					  : (flags & kFlagThreads) != 0  ? Serving::kThreads
													 : Serving::kUnknown;
	return request;
}

int64_t last_row_of(SQLite::Database &database) {
	return database.execAndGet("SELECT coalesce(max(row), 0) FROM requests").getInt64();
}

std::vector<int64_t> rows_after(SQLite::Database &database, int64_t row, size_t most) {
	SQLite::Statement find(database, "SELECT row FROM requests WHERE row > ? ORDER BY row LIMIT ?");
	find.bind(1, row);
	find.bind(2, static_cast<int64_t>(most));
	std::vector<int64_t> rows;
	while (find.executeStep()) {
		rows.push_back(find.getColumn(0).getInt64());
	}
	return rows;
}

std::optional<std::string> read_document(SQLite::Database &database, int64_t row) {
	SQLite::Statement find(database, "SELECT document FROM documents WHERE row = ?");
	find.bind(1, row);
	if (!find.executeStep()) {
		return std::nullopt;
	}
	SQLite::Column bytes = find.getColumn(0);
	return decompress(
		{static_cast<const char *>(bytes.getBlob()), static_cast<size_t>(bytes.getBytes())},
		kLongestDocument);
}

std::optional<Record> read_record(SQLite::Database &database, int64_t row, bool is_damaged) {
	std::optional<RequestRow> request = RequestReader(database).read(row);
	if (!request) {
		return std::nullopt;
	}
	Record record;
	record.summary = std::move(request->summary);
	record.host = std::move(request->host);
	record.instance = std::move(request->instance);
	record.serving = request->serving;
	record.verdict = std::move(request->verdict);
	for (auto *read : {add_texts, add_document}) {
		try {
			read(database, row, record);
		} catch (const SQLite::Exception &error) {
			if (!is_damaged) {
				throw;
			}
		}
	}
	return record;
}

std::optional<int64_t> find_request(SQLite::Database &database, const std::string &begin) {
	SQLite::Statement find(database, "SELECT row FROM requests WHERE id >= ? AND id < ? ORDER BY "
									 "start DESC LIMIT 1");
	find.bind(1, begin);
	find.bind(2, end_of_prefix(begin));
	return find.executeStep() ? std::optional(find.getColumn(0).getInt64()) : std::nullopt;
}

std::optional<std::string> find_trace(SQLite::Database &database, const std::string &begin) {
	SQLite::Statement find(database, "SELECT trace FROM requests WHERE trace >= ? AND trace < ? "
									 "ORDER BY start DESC LIMIT 1");
	find.bind(1, begin);
	find.bind(2, end_of_prefix(begin));
	return find.executeStep() ? std::optional(find.getColumn(0).getString()) : std::nullopt;
}

std::vector<int64_t> rows_of_trace(SQLite::Database &database, const std::string &trace_id) {
	SQLite::Statement find(database, "SELECT row FROM requests WHERE trace = ? LIMIT 10000");
	find.bind(1, trace_id);
	std::vector<int64_t> rows;
	while (find.executeStep()) {
		rows.push_back(find.getColumn(0).getInt64());
	}
	return rows;
}

RowCounts count_file(SQLite::Database &database) {
	return {database.execAndGet("SELECT count(*) FROM requests").getInt64(),
			database.execAndGet("SELECT count(*) FROM documents").getInt64()};
}

} // namespace kaq
