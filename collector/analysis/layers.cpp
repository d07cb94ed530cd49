#include "analysis/layers.h"

#include <utility>

#include "analysis/intervals.h"

namespace kaq {
namespace {

constexpr std::array<std::pair<std::string_view, Layer>, 12> kComponents = {{
	{"PHP", Layer::kCode},
	{"PDO", Layer::kDatabase},
	{"MySQLi", Layer::kDatabase},
	{"MySQL", Layer::kDatabase},
	{"Postgres", Layer::kDatabase},
	{"Oracle", Layer::kDatabase},
	{"MSSQL", Layer::kDatabase},
	{"Cassandra", Layer::kDatabase},
	{"Redis", Layer::kCache},
	{"Memcached", Layer::kCache},
	{"Memcache", Layer::kCache},
	{"HTTP", Layer::kHttp},
}};

/* A transfer that runs beside the code covers time of callers further out; of so many at most. */
constexpr int kMostCallers = 64;

bool contains(Interval outer, Interval inner) {
	return outer.start <= inner.start && inner.end <= outer.end;
}

} // namespace

Layer layer_of(std::string_view component) {
	for (const auto &[name, layer] : kComponents) {
		if (name == component) {
			return layer;
		}
	}
	return component.empty() ? Layer::kCode : Layer::kOther;
}

Layer layer_of(const Span &span) {
	Layer layer = layer_of(span.component);
	bool has_statement = !span.query.empty();
	return has_statement && (layer == Layer::kOther || span.component.empty()) ? Layer::kDatabase
																			   : layer;
}

std::string_view layer_name(Layer layer) {
	static constexpr std::array<std::string_view, kLayers> kNames = {"code", "database", "cache",
																	 "http", "other"};
	return kNames[static_cast<size_t>(layer)];
}

std::vector<int64_t> self_times(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<std::vector<Interval>> inner(spans.size());
	for (size_t i = 1; i < spans.size(); i++) {
		Interval time = interval_of(spans[i]);
		int32_t outer = spans[i].parent;
		for (int callers = 0; outer >= 0 && callers < kMostCallers; callers++) {
			const Span &caller = spans[static_cast<size_t>(outer)];
			inner[static_cast<size_t>(outer)].push_back(clipped(time, interval_of(caller)));
			if (!spans[i].is_async || contains(interval_of(caller), time)) {
				break;
			}
			outer = caller.parent;
		}
	}
	std::vector<int64_t> times(spans.size());
	for (size_t i = 0; i < spans.size(); i++) {
		times[i] = elapsed(0, spans[i].duration() - covered_time(inner[i]));
	}
	return times;
}

LayerTimes layer_times(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<Layer> around(spans.size(), Layer::kCode);
	std::array<std::vector<Interval>, kLayers> calls;
	std::vector<Interval> all;
	Interval request = interval_of(spans.front());
	for (size_t i = 0; i < spans.size(); i++) {
		Layer outer =
			spans[i].parent < 0 ? Layer::kCode : around[static_cast<size_t>(spans[i].parent)];
		Layer own = layer_of(spans[i]);
		around[i] = outer == Layer::kCode ? own : outer;
		if (own != Layer::kCode && around[i] == own) {
			Interval time = clipped(interval_of(spans[i]), request);
			calls[static_cast<size_t>(own)].push_back(time);
			all.push_back(time);
		}
	}
	LayerTimes times = {};
	for (size_t layer = 1; layer < kLayers; layer++) {
		times[layer] = covered_time(calls[layer]);
	}
	times[0] = elapsed(0, request.duration() - covered_time(all));
	return times;
}

std::vector<int32_t> callers_of(const std::vector<Span> &spans) {
	std::vector<int32_t> callers(spans.size(), 0);
	for (size_t i = 1; i < spans.size(); i++) {
		auto parent = static_cast<size_t>(std::max(spans[i].parent, 0));
		bool is_code = parent == 0 || layer_of(spans[parent]) == Layer::kCode;
		callers[i] = is_code ? static_cast<int32_t>(parent) : callers[parent];
	}
	return callers;
}

} // namespace kaq
