#include "store/sqlite_store.h"

#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>

#include <fmt/format.h>

#include "store/schema.h"
#include "util/log.h"
#include "util/system_time.h"

namespace kaq {
namespace {

/* How long what was put waits for more, so that they are written together. */
constexpr std::chrono::milliseconds kGather{200};
/* Both together: what was put a second ago is written, whatever becomes of the process. */
constexpr std::chrono::milliseconds kFigurePeriod{400};
constexpr size_t kBatch = 500;
constexpr int64_t kLargestBatch = 4 * 1024 * 1024; /* bytes */
constexpr std::chrono::seconds kBetweenMakingRoom{10};
constexpr int64_t kRetainEvery = 10 * 1000;
/* A file with more texts takes too much memory while it is written to. */
constexpr size_t kMostTextsInFile = 300000;
/* Connections kept open: more than the files of the longest usual retention. */
constexpr size_t kIdleConnections = 256;
constexpr std::chrono::milliseconds kBetweenSalvages{500};
constexpr int64_t kMinute = 60 * 1000;
/* Rows that wait while the file cannot be written. */
constexpr size_t kMostAsked = 100000;

/* A new one is its owner's alone; one that is there stays as it is. */
std::string made_directory(const std::string &directory) {
	std::error_code error;
	std::filesystem::path path(directory);
	path = path.has_filename() ? path : path.parent_path();
	if (path.has_parent_path()) {
		std::filesystem::create_directories(path.parent_path(), error);
	}
	if (mkdir(path.c_str(), 0700) != 0 && !std::filesystem::is_directory(path, error)) {
		throw StoreError("cannot make " + directory + ": " +
						 (error ? error.message() : strerror(errno)));
	}
	return directory;
}

/* Files of any age, those that are damaged too. */
void make_files_private(const std::string &directory) {
	std::error_code error;
	for (const auto &entry : std::filesystem::directory_iterator(directory, error)) {
		if (entry.path().extension() == ".sqlite") {
			make_private(entry.path().string());
		}
	}
}

DocumentSettings with_bytes(DocumentSettings settings, int64_t bytes) {
	settings.bytes = bytes;
	return settings;
}

int64_t bytes_of(const Record &record) {
	size_t bytes = sizeof(Record) + record.document.size() + record.summary.path.size() + 200;
	for (const RequestText &text : record.texts) {
		bytes += sizeof(RequestText) + text.text.size();
	}
	return static_cast<int64_t>(bytes);
}

} // namespace

SqliteStore::SqliteStore(SqliteSettings settings)
	: settings_(std::move(settings)), pool_(kIdleConnections),
	  files_(made_directory(settings_.directory), pool_, settings_.is_read_only),
	  sums_(settings_.caps), budget_(with_bytes(settings_.documents, settings_.most_bytes)) {
	load_pinned();
	if (!settings_.is_read_only) {
		make_files_private(settings_.directory);
		thread_ = std::thread([this] { run(); });
		salvager_ = std::make_unique<Periodic>("kaq-salvage", kBetweenSalvages,
											   [this] { salvage_files(); });
	}
}

SqliteStore::~SqliteStore() {
	is_salvaging_ = false;
	salvager_.reset();
	{
		std::lock_guard lock(mutex_);
		is_ending_ = true;
	}
	wake_.notify_all();
	if (thread_.joinable()) {
		thread_.join();
	}
}

void SqliteStore::use(SqliteSettings settings) {
	std::lock_guard lock(mutex_);
	tasks_.emplace_back([this, settings = std::move(settings)] { take_over(settings); });
	wake_.notify_one();
}

void SqliteStore::take_over(const SqliteSettings &settings) {
	std::lock_guard lock(mutex_);
	settings_.most_bytes = settings.most_bytes;
	settings_.age = settings.age;
	settings_.file_bytes = settings.file_bytes;
	settings_.file_time = settings.file_time;
	settings_.figures = settings.figures;
	settings_.documents = settings.documents;
	budget_.use(with_bytes(settings.documents, settings.most_bytes));
	/* What is too much now goes at once. */
	retained_ = 0;
}

std::string SqliteStore::figure_path() const {
	return settings_.directory + "/figures.sqlite";
}

int64_t SqliteStore::now() const {
	return settings_.clock ? settings_.clock() : system_time();
}

bool SqliteStore::wants_document(const Summary &summary) {
	std::lock_guard lock(mutex_);
	bool wants = budget_.wants(summary, now()) && queued_bytes_ < settings_.queue_bytes;
	if (!wants) {
		left_out_++;
	}
	return wants;
}

void SqliteStore::put(Record record) {
	put_++;
	sums_.add(record, now());
	record.facts = {};
	int64_t bytes = bytes_of(record);
	std::lock_guard lock(mutex_);
	if (queued_bytes_ + bytes > 2 * settings_.queue_bytes) {
		lost_++;
		return;
	}
	/* The file's own needs are in proportion. */
	budget_.spend(static_cast<int64_t>(record.document.size()) + 200);
	kept_ += record.document.empty() ? 0 : 1;
	queued_bytes_ += bytes;
	queue_.push_back(std::move(record));
	if (queue_.size() == kBatch) {
		wake_.notify_one();
	}
}

void SqliteStore::put_asked(int64_t time, const std::vector<AskedCount> &counts) {
	AskedSums sums;
	for (const AskedCount &count : counts) {
		AskedSum &sum = sums[{time - time % kMinute, count.application, count.name}];
		sum.asked += count.asked;
		sum.monitored += count.monitored;
	}
	std::lock_guard lock(mutex_);
	add_asked(sums);
}

/* REQUIRES: the lock. Of too many the oldest go. */
void SqliteStore::add_asked(const AskedSums &sums) {
	for (const auto &[key, sum] : sums) {
		AskedSum &mine = asked_[key];
		mine.asked += sum.asked;
		mine.monitored += sum.monitored;
	}
	while (asked_.size() > kMostAsked) {
		asked_.erase(asked_.begin());
	}
}

void SqliteStore::run() {
	pthread_setname_np(pthread_self(), "kaq-store");
	auto figures_due = std::chrono::steady_clock::now() + kFigurePeriod;
	bool is_ending = false;
	while (!is_ending) {
		std::deque<Record> records;
		std::deque<Task> tasks;
		{
			std::unique_lock lock(mutex_);
			wake_.wait_for(lock, kGather, [this] {
				return is_ending_ || !tasks_.empty() || queue_.size() >= kBatch;
			});
			records.swap(queue_);
			tasks.swap(tasks_);
			queued_bytes_ = 0;
			is_ending = is_ending_;
		}
		write_requests(records);
		auto time = std::chrono::steady_clock::now();
		if (time >= figures_due || is_ending || !tasks.empty()) {
			figures_due = time + kFigurePeriod;
			write_figures();
		}
		for (Task &task : tasks) {
			task();
		}
		if (now() - retained_ >= kRetainEvery || now() < retained_) {
			retain();
		}
	}
}

void SqliteStore::on_writer(const std::function<void()> &task) {
	if (!thread_.joinable()) {
		throw StoreError("the store is open for reading only");
	}
	std::packaged_task<void()> packaged(task);
	std::future<void> result = packaged.get_future();
	{
		std::lock_guard lock(mutex_);
		tasks_.emplace_back([&packaged] { packaged(); });
	}
	wake_.notify_one();
	result.wait();
	try {
		result.get();
	} catch (const SQLite::Exception &error) {
		throw StoreError(error.what());
	}
}

void SqliteStore::flush() {
	if (!settings_.is_read_only) {
		on_writer([] {});
	}
}

/* The last file is written on after a restart, as long as it is young. */
void SqliteStore::open_file() {
	int64_t time = now();
	int64_t bytes = file_ ? bytes_of_database(file_info_.path) : 0;
	if (file_ && bytes == 0) {
		files_.remove(file_info_); /* as somebody has done already */
	}
	/* By the clock that is now: a file's name may be far ahead of it, after it has stepped back. A
	 * reader may have found the file to be damaged. */
	bool is_full = file_ && (!files_.has(file_info_) || time - file_since_ >= settings_.file_time ||
							 time < file_since_ - settings_.file_time ||
							 file_->texts() > kMostTextsInFile || bytes >= settings_.file_bytes);
	if (file_ && !is_full) {
		return;
	}
	file_.reset();
	if (!is_full && files_.newest_since(time - settings_.file_time, file_info_) &&
		bytes_of_database(file_info_.path) < settings_.file_bytes) {
		try {
			file_ = std::make_unique<RequestFile>(file_info_.path);
			file_since_ = std::min(file_info_.begun, time);
			return;
		} catch (const SQLite::Exception &damage) {
			if (!is_damage(damage)) {
				throw;
			}
			files_.put_aside(file_info_, damage.what());
		}
	}
	mkdir(settings_.directory.c_str(), 0700); /* it may have been removed */
	file_info_ = files_.name_new(time);
	try {
		file_ = std::make_unique<RequestFile>(file_info_.path);
	} catch (const SQLite::Exception &) {
		remove_database(file_info_.path);
		throw;
	}
	file_since_ = time;
	files_.add(file_info_);
}

/* What was added once and failed is added one by one, so that whatever is wrong with one of them
 * takes no other with it. */
void SqliteStore::write_batch(const Records &from, const Records &to, bool is_retry) {
	open_file();
	int64_t refused = 0;
	std::string reason;
	file_->begin();
	for (Records record = from; record != to; ++record) {
		if (!is_retry) {
			file_->add(*record);
		} else if (!file_->add_if_possible(*record, reason)) {
			refused++;
		}
	}
	file_->commit();
	counts_.set(file_info_.path, file_->counts());
	next_room_ = {};
	if (refused > 0) {
		lose(refused, reason);
	}
}

void SqliteStore::lose(int64_t requests, const std::string &reason) {
	lost_ += requests;
	log_some(LogLevel::kError, "store-lost",
			 std::to_string(requests) + " requests are lost, since they cannot be written to " +
				 settings_.directory + ": " + reason);
}

/* What is damaged is put aside, and for what has no room older requests make some, but not again
 * and again where that does not help; then it is tried once more. */
void SqliteStore::recover(const SQLite::Exception &error) {
	if (file_) {
		file_->roll_back();
		file_.reset();
		if (is_damage(error)) {
			files_.put_aside(file_info_, error.what());
		}
	}
	auto time = std::chrono::steady_clock::now();
	if (error.getErrorCode() == SQLITE_FULL && time >= next_room_) {
		next_room_ = time + kBetweenMakingRoom;
		int64_t before = files_.bytes();
		files_.retain(before / 4 * 3, 0);
		int64_t freed = before - files_.bytes();
		log_some(
			LogLevel::kError, "store-full",
			freed > 0
				? "the disk is full: the oldest requests were removed from " + settings_.directory +
					  ", " + fmt::format("{:.1f} MiB", static_cast<double>(freed) / (1 << 20))
				: "the disk is full, and " + settings_.directory + " has nothing more to remove");
	}
}

/* In batches also where many wait, since an unfinished one is lost with the process. */
void SqliteStore::write_requests(const std::deque<Record> &records) {
	for (Records from = records.begin(); from != records.end();) {
		Records to = from;
		for (int64_t bytes = 0;
			 to != records.end() && to - from < static_cast<std::ptrdiff_t>(kBatch) &&
			 bytes < kLargestBatch;
			 ++to) {
			bytes += bytes_of(*to);
		}
		write_batch_or_lose(from, to);
		from = to;
	}
}

void SqliteStore::write_batch_or_lose(const Records &from, const Records &to) {
	std::string reason;
	for (bool is_retry : {false, true}) {
		try {
			write_batch(from, to, is_retry);
			is_writing_ = true;
			return;
		} catch (const SQLite::Exception &error) {
			reason = error.what();
			recover(error);
		}
	}
	is_writing_ = false;
	lose(to - from, reason);
}

/* What cannot be written is added to what comes next. */
void SqliteStore::write_figures() {
	std::vector<FigurePeriod> periods = sums_.take();
	AskedSums asked;
	{
		std::lock_guard lock(mutex_);
		asked.swap(asked_);
	}
	if (periods.empty() && asked.empty()) {
		return;
	}
	if (bytes_of_database(figure_path()) == 0) {
		figure_file_.reset(); /* somebody has removed it */
	}
	try {
		open_figures().write(periods, asked);
	} catch (const SQLite::Exception &error) {
		figure_file_.reset();
		is_writing_ = false;
		if (is_damage(error)) {
			files_.put_aside({figure_path(), now(), false}, error.what());
		}
		log_some(LogLevel::kError, "store-figures",
				 std::string("the figures cannot be written; they wait in memory, the last hour "
							 "of them: ") +
					 error.what());
		sums_.put_back(periods);
		std::lock_guard lock(mutex_);
		add_asked(asked);
	}
}

void SqliteStore::retain() {
	retained_ = now();
	try {
		files_.retain(settings_.most_bytes, now() - settings_.age);
		if (figure_file_) {
			figure_file_->retain(settings_.figures, now());
		}
	} catch (const SQLite::Exception &) {
		figure_file_.reset();
	}
}

} // namespace kaq
