/*
 * Where requests and figures are kept. What is put is there for readers within a second.
 *
 * Any thread may call anything at any time. Times are milliseconds since the Unix epoch, ranges
 * include their begin and not their end. No reader waits for the writer, nor the writer for one.
 * Reading throws StoreError when nothing at all can be read; a part that cannot is left out,
 * counted and told by status().
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "store/figures.h"
#include "store/filter.h"
#include "store/record.h"

namespace kaq {

class StoreError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/* A request as it is found: everything but its document. */
struct RequestRow {
	Summary summary;
	std::string host;
	std::string instance;
	Serving serving = Serving::kUnknown; /* as its process did when it was recorded */
	RequestVerdict verdict;
	bool has_document = false;
	bool is_pinned = false;
};

struct Search {
	enum class Order { kNewest, kSlowest };

	Filter filter;
	Order order = Order::kNewest;
	size_t limit = 100;
	int64_t time_limit = 5000; /* milliseconds */
};

struct Found {
	std::vector<RequestRow> rows;
	bool has_more = false;            /* the limit was reached */
	bool is_partial = false;          /* the time was up before all was looked at */
	int64_t looked_at = 0;            /* requests */
	std::vector<std::string> damages; /* why requests may be missing, in words */
};

/* A condition on figures; what is empty is no condition. */
struct FigureSearch {
	FigureKind kind = FigureKind::kTransaction;
	TimeRange range;
	std::string application;
	std::string transaction;
	std::string text;
};

/* A release, or whatever else somebody marked on the axis of time. */
struct Mark {
	int64_t time = 0;
	std::string application; /* empty: all */
	std::string text;
};

constexpr size_t kMostMarks = 10000;

/* Requests that asked whether they are to be recorded, and those that were. */
struct AskedCount {
	std::string application;
	std::string name; /* of the path, without parameters */
	int64_t asked = 0;
	int64_t monitored = 0;
};

/* Requests that are stored, summed up. */
struct RequestSums {
	std::vector<FigureStep> steps;
	bool is_partial = false; /* the time was up before all was looked at */
};

/* A host's name that an application was asked under. */
struct AskedHost {
	std::string application;
	std::string host;
	int64_t requests = 0; /* that are stored */
};

/* A place in the order in which requests arrived: behind that row of the file that was begun then.
 * The first place of all is before everything. */
struct StorePlace {
	int64_t file = 0;
	int64_t row = 0;
};

/* What is read on from a place. */
struct Arrivals {
	struct Request {
		RequestRow row;
		std::string document; /* as JSON */
		StorePlace place;     /* behind it */
	};
	std::vector<Request> requests; /* that are wanted and have a document, as they arrived */
	StorePlace next;               /* behind all that was looked at */
	bool has_more = false;         /* a bound was reached */
	bool has_gap = false;          /* the file that the place is in is gone */
};

struct ArrivalSearch {
	StorePlace after;
	std::function<bool(const RequestRow &)> wants;
	size_t most_rows = 1000;             /* that are looked at */
	size_t most_bytes = 8 * 1024 * 1024; /* of documents; the last one may exceed it */
};

struct StoreStatus {
	struct Part {
		int64_t begun = 0;
		int64_t bytes = 0;
		int64_t requests = 0;
		int64_t documents = 0;
	};
	std::vector<Part> parts; /* oldest first */
	int64_t bytes = 0;
	int64_t most_bytes = 0;
	int64_t figure_bytes = 0;
	int64_t most_figure_bytes = 0;
	int64_t requests_put = 0;         /* since the start */
	int64_t documents_kept = 0;       /* of these */
	int64_t documents_left_out = 0;   /* by choice, since not all can be kept */
	int64_t requests_lost = 0;        /* that could not be written */
	int64_t other_names = 0;          /* requests whose name was one too many */
	bool is_writing = true;           /* the last attempt to write succeeded */
	std::vector<std::string> damages; /* what was lost, in words */
};

class Store {
public:
	virtual ~Store() = default;

	/* Whether this request's document is worth its room; asked once, before put(). */
	virtual bool wants_document(const Summary &summary) = 0;
	/* Its figures always count; the rest is lost, and counted, if the store is too far behind. */
	virtual void put(Record record) = 0;
	virtual void put_asked(int64_t time, const std::vector<AskedCount> &counts) = 0;
	/* Returns when everything that was put before can be read. */
	virtual void flush() = 0;

	virtual Found search(const Search &search) = 0;
	/* By the whole identifier, or by its first characters, at least 4; of several the newest. */
	virtual std::optional<RequestRow> request(const std::string &id) = 0;
	/* The whole identifier of a trace, by the same. */
	virtual std::optional<std::string> trace_id(const std::string &begin) = 0;
	/* All requests of a trace, in the order of their starts. */
	virtual std::vector<RequestRow> trace(const std::string &trace_id) = 0;
	/* As JSON; nothing if it was not kept. The identifier must be whole. */
	virtual std::optional<std::string> document(const std::string &id) = 0;

	/* Requests in the order in which they arrived. Of files that were damaged some may come twice,
	 * or not at all. */
	virtual Arrivals arrivals(const ArrivalSearch &search) = 0;
	/* Behind all that can be read now. */
	virtual StorePlace last_place() = 0;
	/* How many requests, with documents or without, are behind a place. */
	virtual int64_t requests_after(const StorePlace &place) = 0;

	/* Sums over the range, a row for each key, in no particular order. The range is widened to
	 * whole minutes, and to whole hours where the minutes are gone. */
	virtual std::vector<FigureRow> figures(const FigureSearch &search) = 0;
	/* Sums over all keys, a point for each step of `step` milliseconds that has any; `step` is a
	 * multiple of a minute. */
	virtual std::vector<FigurePoint> curve(const FigureSearch &search, int64_t step) = 0;
	/* The same for each key by itself, in no particular order; 0 is one step from the begin of time
	 * to its end. */
	virtual std::vector<FigureStep> figure_steps(const FigureSearch &search, int64_t step) = 0;
	/* Of transactions, from the stored requests that fulfil the filter. */
	virtual RequestSums request_sums(const Filter &filter, int64_t step) = 0;
	/* In no particular order. */
	virtual std::vector<AskedHost> hosts(const TimeRange &range) = 0;
	/* A row for each application and name. */
	virtual std::vector<AskedCount> asked(const TimeRange &range,
										  const std::string &application) = 0;

	virtual void add_mark(const Mark &mark) = 0;
	/* All that are the same as this one. */
	virtual void remove_mark(const Mark &mark) = 0;
	/* The newest kMostMarks of the range, oldest first. */
	virtual std::vector<Mark> marks(const TimeRange &range) = 0;

	/* Keeps a trace, or one request, whatever else is thrown away; false if there is none. */
	virtual bool pin(const std::string &id) = 0;
	virtual bool unpin(const std::string &id) = 0;
	/* Deletes requests with everything that is known of them; returns how many. Figures keep the
	 * sums, with names, statements and messages that have no literals, but name none of them.
	 * Takes seconds for each hour that is searched. */
	virtual int64_t forget(const Filter &filter) = 0;

	virtual StoreStatus status() = 0;
};

} // namespace kaq
