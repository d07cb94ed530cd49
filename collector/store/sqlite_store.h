/*
 * The store of one host: SQLite files in a directory. One thread writes; what it cannot write is
 * counted as lost and the next thing tried, so that a full disk or a damaged file never stops the
 * collector.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "store/database_pool.h"
#include "store/document_budget.h"
#include "store/figure_file.h"
#include "store/figure_sums.h"
#include "store/part_counts.h"
#include "store/request_directory.h"
#include "store/request_file.h"
#include "store/store.h"
#include "util/periodic.h"

namespace kaq {

struct SqliteSettings {
	std::string directory; /* made if it is missing */
	int64_t most_bytes = 2LL * 1024 * 1024 * 1024;
	int64_t age = 7LL * 24 * 3600 * 1000;     /* milliseconds */
	int64_t file_bytes = 256LL * 1024 * 1024; /* of one file of requests */
	int64_t file_time = 3600 * 1000;          /* milliseconds */
	int64_t queue_bytes = 32LL * 1024 * 1024; /* that wait for being written */
	FigureCaps caps;
	FigureRetention figures;
	DocumentSettings documents;     /* its `bytes` is `most_bytes`, whatever it says */
	std::function<int64_t()> clock; /* milliseconds since the Unix epoch; empty: the system's */
	bool is_read_only = false;      /* nothing is put, pinned, marked or forgotten */
};

class SqliteStore : public Store {
public:
	/* Opens what is there. Throws StoreError if the directory cannot be had. */
	explicit SqliteStore(SqliteSettings settings);
	/* Writes what was put. */
	~SqliteStore() override;

	/* Takes over sizes and times before long; the directory, the caps of names, the queue and the
	 * clock stay as they are. Any thread. */
	void use(SqliteSettings settings);

	bool wants_document(const Summary &summary) override;
	void put(Record record) override;
	void put_asked(int64_t time, const std::vector<AskedCount> &counts) override;
	void flush() override;

	Found search(const Search &search) override;
	std::optional<RequestRow> request(const std::string &id) override;
	std::optional<std::string> trace_id(const std::string &begin) override;
	std::vector<RequestRow> trace(const std::string &trace_id) override;
	std::optional<std::string> document(const std::string &id) override;
	Arrivals arrivals(const ArrivalSearch &search) override;
	StorePlace last_place() override;
	int64_t requests_after(const StorePlace &place) override;
	std::vector<FigureRow> figures(const FigureSearch &search) override;
	std::vector<FigurePoint> curve(const FigureSearch &search, int64_t step) override;
	std::vector<FigureStep> figure_steps(const FigureSearch &search, int64_t step) override;
	RequestSums request_sums(const Filter &filter, int64_t step) override;
	std::vector<AskedHost> hosts(const TimeRange &range) override;
	std::vector<AskedCount> asked(const TimeRange &range, const std::string &application) override;
	void add_mark(const Mark &mark) override;
	void remove_mark(const Mark &mark) override;
	std::vector<Mark> marks(const TimeRange &range) override;
	bool pin(const std::string &id) override;
	bool unpin(const std::string &id) override;
	int64_t forget(const Filter &filter) override;
	StoreStatus status() override;

private:
	using File = RequestDirectory::File;
	using Task = std::function<void()>;

	void take_over(const SqliteSettings &settings);

	void run();
	/* Does something on the writing thread and waits for it; its exceptions come back. */
	void on_writer(const std::function<void()> &task);
	void write_requests(const std::deque<Record> &records);
	using Records = std::deque<Record>::const_iterator;
	void write_batch(const Records &from, const Records &to, bool is_retry);
	void write_batch_or_lose(const Records &from, const Records &to);
	void lose(int64_t requests, const std::string &reason);
	void open_file();
	void recover(const SQLite::Exception &error);
	void write_figures();
	void add_asked(const AskedSums &sums);
	void retain();
	void copy_to_pinned(const std::vector<std::string> &ids);
	std::vector<std::string> ids_of(const std::string &id);
	std::vector<std::string> delete_requests(const std::string &path, const Filter &filter);
	void load_pinned();
	/* Brings back what can be read of files that were put aside. */
	void salvage_files();
	void salvage_file(const RequestDirectory::Aside &aside);

	/* Visits files, newest first, until visit(connection, file) returns false. A damaged one is put
	 * aside. */
	void visit_files(const std::function<bool(SQLite::Database &, const File &)> &visit);
	bool visit_file(const File &file,
					const std::function<bool(SQLite::Database &, const File &)> &visit);
	std::optional<RowCounts> counts_of(const File &file);
	std::vector<File> files_from(int64_t begun);
	template <typename Read> auto read_figure_file(Read read);
	struct Candidate {
		int64_t rank;
		int64_t row;
		std::string path;
	};
	void read_candidates(const std::vector<Candidate> &best, size_t limit, Found &found);
	RequestRow complete(RequestRow row);
	std::string figure_path() const;
	FigureFile &open_figures();
	int64_t now() const;

	/* What may change does so on the writing thread, with the lock. */
	SqliteSettings settings_;
	DatabasePool pool_;
	RequestDirectory files_;
	PartCounts counts_;
	FigureSums sums_;

	std::mutex mutex_; /* of the following */
	std::condition_variable wake_;
	std::deque<Record> queue_;
	std::deque<Task> tasks_;
	AskedSums asked_;
	std::unordered_set<std::string> pinned_;
	DocumentBudget budget_;
	int64_t queued_bytes_ = 0;
	bool is_ending_ = false;

	/* Of the writing thread. */
	std::unique_ptr<RequestFile> file_;
	File file_info_;
	int64_t file_since_ = 0; /* when it was begun to be written to, by the clock as it was then */
	std::unique_ptr<FigureFile> figure_file_;
	int64_t retained_ = 0;
	/* When older requests may make room on a full disk again, if nothing can be written before. */
	std::chrono::steady_clock::time_point next_room_{};

	std::atomic<int64_t> put_{0};
	std::atomic<int64_t> kept_{0};
	std::atomic<int64_t> left_out_{0};
	std::atomic<int64_t> lost_{0};
	std::atomic<bool> is_writing_{true};
	std::thread thread_;
	std::atomic<bool> is_salvaging_{true}; /* false: it is to end */
	std::unique_ptr<Periodic> salvager_;
};

} // namespace kaq
