#include "export/otlp_ids.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace kaq {
namespace {

int digit_of(char character) {
	if (character >= '0' && character <= '9') {
		return character - '0';
	}
	char lower = static_cast<char>(character | 0x20);
	return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

template <size_t size> std::optional<std::array<char, size>> from_hex(std::string_view text) {
	std::array<char, size> bytes = {};
	if (text.size() != 2 * size) {
		return std::nullopt;
	}
	for (size_t i = 0; i < size; i++) {
		int high = digit_of(text[2 * i]);
		int low = digit_of(text[2 * i + 1]);
		if (high < 0 || low < 0) {
			return std::nullopt;
		}
		bytes[i] = static_cast<char>(high << 4 | low);
	}
	bool is_zero = std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
	return is_zero ? std::nullopt : std::optional(bytes);
}

uint64_t number_of(const OtlpSpanId &id) {
	uint64_t number = 0;
	std::memcpy(&number, id.data(), id.size());
	return number;
}

/* Never zero. */
OtlpSpanId hashed(std::string_view text, uint64_t seed) {
	XXH64_canonical_t bytes;
	XXH64_hash_t hash = XXH3_64bits_withSeed(text.data(), text.size(), seed);
	XXH64_canonicalFromHash(&bytes, hash == 0 ? 1 : hash);
	OtlpSpanId id;
	std::memcpy(id.data(), bytes.digest, id.size());
	return id;
}

} // namespace

std::optional<OtlpTraceId> valid_trace_id(std::string_view text) {
	return from_hex<16>(text);
}

std::optional<OtlpSpanId> valid_span_id(std::string_view text) {
	return from_hex<8>(text);
}

/* A request without one is a trace of its own, known by its root. */
OtlpTraceId trace_id_of(const Transaction &transaction) {
	if (std::optional<OtlpTraceId> id = valid_trace_id(transaction.trace_id)) {
		return *id;
	}
	std::string_view text =
		transaction.trace_id.empty() ? transaction.spans.front().id : transaction.trace_id;
	XXH128_canonical_t bytes;
	XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
	hash.low64 = hash.low64 == 0 && hash.high64 == 0 ? 1 : hash.low64;
	XXH128_canonicalFromHash(&bytes, hash);
	OtlpTraceId id;
	std::memcpy(id.data(), bytes.digest, id.size());
	return id;
}

std::vector<OtlpSpanId> span_ids_of(const Transaction &transaction) {
	std::string_view root = transaction.spans.front().id;
	uint64_t family = XXH3_64bits(root.data(), root.size());
	std::vector<OtlpSpanId> ids;
	ids.reserve(transaction.spans.size());
	std::unordered_set<uint64_t> taken;
	taken.reserve(transaction.spans.size());
	for (const Span &span : transaction.spans) {
		std::optional<OtlpSpanId> valid = valid_span_id(span.id);
		OtlpSpanId id = valid ? *valid : hashed(span.id, family);
		for (uint64_t seed = family + ids.size(); !taken.insert(number_of(id)).second;) {
			id = hashed(span.id, ++seed);
		}
		ids.push_back(id);
	}
	return ids;
}

} // namespace kaq
