/*
 * Where the time of a request goes: to the site's own code, or to what it calls. Times are
 * milliseconds. A transaction has at least one span. No state; any thread.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "model/transaction.h"

namespace kaq {

/* kOther: an instrumented call that is none of the others. */
enum class Layer { kCode, kDatabase, kCache, kHttp, kOther };
constexpr size_t kLayers = 5;

/* Of a component as the extension names it: "PHP", "PDO", "Redis". */
Layer layer_of(std::string_view component);

/* A span without a component is user code, unless it has a statement. */
Layer layer_of(const Span &span);

/* "code", "database", "cache", "http", "other" */
std::string_view layer_name(Layer layer);

/*
 * Per span its duration without what its inner calls cover. Inner calls that overlap count once,
 * and so do transfers that run while the code that started them goes on: they are nobody's own
 * time.
 */
std::vector<int64_t> self_times(const Transaction &transaction);

/*
 * Time per layer, by number of the layer. What a call does within belongs to that call's layer;
 * calls that overlap count once. Code has the rest of the request. The sum exceeds the request's
 * duration where calls of different layers overlap.
 */
using LayerTimes = std::array<int64_t, kLayers>;
LayerTimes layer_times(const Transaction &transaction);

inline int64_t time_of(const LayerTimes &times, Layer layer) {
	return times[static_cast<size_t>(layer)];
}

/* Per span the index of the nearest user code around it; the root's where there is none. */
std::vector<int32_t> callers_of(const std::vector<Span> &spans);

} // namespace kaq
