/*
 * Writes requests into one file. What is added is there for readers after commit(). One thread at a
 * time. Everything throws SQLite::Exception when it fails; then the file is not to be written to
 * any more.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "store/part_counts.h"
#include "store/record.h"

namespace kaq {

/* Kinds of texts that many requests share. */
enum class NameKind {
	kApplication = 0,
	kName = 1,
	kHost = 2,
	kMethod = 3,
	kInstance = 4,
	kFindings = 5 /* the kinds of a request's findings, with blanks between */
};

/* Bits of a request's flags. */
constexpr int64_t kFlagWeb = 1;
constexpr int64_t kFlagFailed = 2;
/* How its process serves; neither where that is not known. */
constexpr int64_t kFlagOneAtATime = 4;
constexpr int64_t kFlagThreads = 8;

class RequestFile {
public:
	/* Makes the file if there is none. */
	explicit RequestFile(const std::string &path);
	~RequestFile();

	void begin();
	void add(const Record &record);
	/* The same; false, with the reason, where nothing but this one cannot be added: then all else
	 * stays as it is. Takes longer. */
	bool add_if_possible(const Record &record, std::string &reason);
	void commit();
	/* Undoes what came after begin(), as far as that is possible. */
	void roll_back() noexcept;

	/* What the file holds, with what was added. */
	RowCounts counts() const {
		return counts_;
	}
	/* Distinct texts; the memory that this takes grows with them. */
	size_t texts() const {
		return text_ids_.size();
	}

private:
	void forget_new();
	int64_t name_id(NameKind kind, std::string_view text);
	int64_t text_id(const RequestText &text);
	int64_t text_set_id(const std::vector<RequestText> &texts);
	void note_start(int64_t start);
	void bind_summary(const Summary &summary, int64_t flags);
	void load_names();
	int64_t next_of(const std::string &table, const std::string &column);

	std::unique_ptr<SQLite::Database> database_;
	SQLite::Statement add_request_;
	SQLite::Statement add_document_;
	SQLite::Statement add_name_;
	SQLite::Statement add_text_;
	SQLite::Statement add_index_;
	SQLite::Statement add_set_;
	std::unordered_map<std::string, int64_t> name_ids_;
	/* By the hashes of texts and of lists of their numbers. */
	std::unordered_map<uint64_t, int64_t> text_ids_;
	std::unordered_map<uint64_t, int64_t> set_ids_;
	/* Of the request that was added last: its keys in the three above that nobody had before. */
	std::vector<std::string> new_names_;
	std::vector<uint64_t> new_texts_;
	std::vector<uint64_t> new_sets_;
	int64_t next_row_ = 1;
	int64_t next_name_ = 1;
	int64_t next_text_ = 1;
	int64_t next_set_ = 1;
	RowCounts counts_;
	int64_t first_ = INT64_MAX;
	int64_t last_ = INT64_MIN;
	bool is_range_new_ = false;
};

/* A text set's members, as they are kept. */
std::string text_set_to_bytes(const std::vector<int64_t> &sorted);
/* As many as can be read. */
std::vector<int64_t> text_set_from_bytes(std::string_view bytes);

} // namespace kaq
