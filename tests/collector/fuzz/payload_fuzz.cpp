/*
 * Payloads: the text of a document, as it stands in the Base64. What is accepted has a root, spans
 * whose parents stand before them, and texts that are valid UTF-8; and the document means the same
 * after its Base64 has been made and read.
 */
#include <cstdint>
#include <cstdlib>
#include <string>

#include "model/payload_reader.h"
#include "util/utf8.h"

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static void require_text(std::string_view text) {
	require(kaq::replace_invalid_utf8(text) == text);
}

static void check(const kaq::Transaction &transaction) {
	require(!transaction.spans.empty() && transaction.spans[0].parent == -1);
	require_text(transaction.name);
	for (const kaq::Field &field : transaction.parameters) {
		require_text(field.name);
		require_text(field.value);
	}
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		const kaq::Span &span = transaction.spans[i];
		require(span.parent < static_cast<int64_t>(i) && (i == 0 || span.parent >= 0));
		require(span.duration() >= 0);
		require_text(span.name);
		require_text(span.query);
	}
}

static std::string base64(const std::string &bytes) {
	static const char alphabet[] =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
	std::string text;
	for (size_t at = 0; at < bytes.size(); at += 3) {
		uint32_t bits = 0;
		for (size_t i = 0; i < 3; i++) {
			bits = bits << 8 | (at + i < bytes.size() ? static_cast<uint8_t>(bytes[at + i]) : 0);
		}
		for (int place = 0; place < 4; place++) {
			bool is_padding = at + static_cast<size_t>(place) > bytes.size();
			text += is_padding ? '=' : alphabet[bits >> (18 - 6 * place) & 63];
		}
	}
	return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	static kaq::PayloadReader reader;
	std::string text(reinterpret_cast<const char *>(data), size);
	auto transaction = reader.read_json(text);
	auto again = reader.read(base64(text));
	require(transaction.has_value() == again.has_value());
	if (transaction) {
		check(*transaction);
		require(transaction->name == again->name &&
				transaction->spans.size() == again->spans.size());
	} else {
		require(transaction.error() == again.error());
	}
	[[maybe_unused]] auto garbage = reader.read(text);
	return 0;
}
