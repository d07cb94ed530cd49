#include "model/document.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace kaq {
namespace {

/* The first byte that JSON wants escaped, or the end; eight bytes at a time. */
size_t escape_at(std::string_view text) {
	constexpr uint64_t kOnes = 0x0101010101010101;
	constexpr uint64_t kHigh = 0x80 * kOnes;
	auto has_zero = [](uint64_t bytes) { return (bytes - kOnes) & ~bytes & kHigh; };
	size_t at = 0;
	for (; at + 8 <= text.size(); at += 8) {
		uint64_t bytes;
		std::memcpy(&bytes, text.data() + at, 8);
		uint64_t below_blank = (bytes - ' ' * kOnes) & ~bytes & kHigh;
		if (below_blank | has_zero(bytes ^ '"' * kOnes) | has_zero(bytes ^ '\\' * kOnes)) {
			break;
		}
	}
	auto is_plain = [](char each) {
		return static_cast<unsigned char>(each) >= ' ' && each != '"' && each != '\\';
	};
	while (at < text.size() && is_plain(text[at])) {
		at++;
	}
	return at;
}

/* Writes JSON without blanks; knows where a comma is due. Members have names of our own, which
 * need no escapes; named() takes any. */
class Writer {
public:
	explicit Writer(size_t about_bytes) : out_(about_bytes, '\0') {
	}

	void open(char bracket) {
		separate();
		put(bracket);
		is_first_ = true;
	}

	void open(std::string_view name, char bracket) {
		key(name);
		put(bracket);
		is_first_ = true;
	}

	void close(char bracket) {
		put(bracket);
		is_first_ = false;
	}

	void text(std::string_view value) {
		separate();
		quote(value);
	}

	void number(int64_t value) {
		separate();
		digits(value);
	}

	/* Left out if it is empty. */
	void member(std::string_view name, std::string_view value) {
		if (!value.empty()) {
			key(name);
			quote(value);
		}
	}

	/* Left out if it is 0. */
	void member(std::string_view name, int64_t value) {
		if (value != 0) {
			key(name);
			digits(value);
		}
	}

	void named(std::string_view name, std::string_view value) {
		text(name);
		put(':');
		quote(value);
	}

	void named(std::string_view name, double value) {
		char digits[32];
		int size = snprintf(digits, sizeof digits, "%.17g", value);
		text(name);
		put(':');
		put({digits, static_cast<size_t>(size)});
	}

	std::string result() {
		out_.resize(size_);
		return std::move(out_);
	}

private:
	/* Room for that many bytes more. */
	char *room(size_t bytes) {
		if (out_.size() - size_ < bytes) {
			out_.resize(std::max(2 * out_.size(), size_ + bytes));
		}
		return out_.data() + size_;
	}

	void put(char byte) {
		*room(1) = byte;
		size_++;
	}

	void put(std::string_view bytes) {
		std::copy(bytes.begin(), bytes.end(), room(bytes.size()));
		size_ += bytes.size();
	}

	void separate() {
		if (!is_first_) {
			put(',');
		}
		is_first_ = false;
	}

	void key(std::string_view name) {
		char *out = room(name.size() + 4);
		char *begin = out;
		if (!is_first_) {
			*out++ = ',';
		}
		is_first_ = false;
		*out++ = '"';
		out = std::copy(name.begin(), name.end(), out);
		*out++ = '"';
		*out++ = ':';
		size_ += static_cast<size_t>(out - begin);
	}

	void digits(int64_t value) {
		constexpr size_t kMost = 24;
		char *out = room(kMost);
		size_ += static_cast<size_t>(std::to_chars(out, out + kMost, value).ptr - out);
	}

	void quote(std::string_view text) {
		put('"');
		while (true) {
			size_t plain = escape_at(text);
			put(text.substr(0, plain));
			if (plain == text.size()) {
				break;
			}
			escape(text[plain]);
			text.remove_prefix(plain + 1);
		}
		put('"');
	}

	void escape(char byte) {
		if (byte == '"' || byte == '\\') {
			put('\\');
			put(byte);
			return;
		}
		char escaped[7];
		snprintf(escaped, sizeof escaped, "\\u%04x",
				 static_cast<unsigned>(static_cast<unsigned char>(byte)));
		put({escaped, 6});
	}

	std::string out_; /* longer than what has been written */
	size_t size_ = 0;
	bool is_first_ = true;
};

void write_fields(Writer &writer, std::string_view name, const std::vector<Field> &fields) {
	if (fields.empty()) {
		return;
	}
	writer.open(name, '{');
	for (const Field &field : fields) {
		writer.named(field.name, field.value);
	}
	writer.close('}');
}

void write_measures(Writer &writer, std::string_view name, const std::vector<Measure> &measures) {
	if (measures.empty()) {
		return;
	}
	writer.open(name, '{');
	for (const Measure &measure : measures) {
		writer.named(measure.name, measure.value);
	}
	writer.close('}');
}

void write_failures(Writer &writer, const std::vector<Failure> &failures) {
	if (failures.empty()) {
		return;
	}
	writer.open("ei", '[');
	for (const Failure &failure : failures) {
		writer.open('{');
		writer.member("err_clz", failure.type);
		writer.member("filename", failure.file);
		writer.member("linenumber", failure.line);
		writer.member("time", failure.time);
		writer.member("level", failure.level);
		writer.member("str", failure.message);
		writer.close('}');
	}
	writer.close(']');
}

void write_stack(Writer &writer, const std::vector<StackFrame> &stack) {
	if (stack.empty()) {
		return;
	}
	writer.open("mst", '[');
	for (const StackFrame &frame : stack) {
		writer.open('[');
		writer.text(frame.type);
		writer.text(frame.function);
		writer.text(frame.file);
		writer.number(frame.line);
		writer.close(']');
	}
	writer.close(']');
}

void write_span(Writer &writer, const Span &span) {
	writer.open('{');
	writer.member("st", span.start);
	writer.member("et", span.end);
	writer.member("fn", span.name);
	writer.member("cn", span.component);
	writer.member("ex", static_cast<int64_t>(span.is_external));
	writer.member("ar", static_cast<int64_t>(span.is_async));
	writer.member("if", static_cast<int64_t>(span.is_failed));
	writer.member("si", span.id);
	writer.member("psi", span.parent_id);
	writer.member("qs", span.query);
	writer.member("sv", static_cast<int64_t>(span.values));
	writer.member("esc", span.status);
	writer.member("hn", span.host);
	writer.member("pn", span.port);
	writer.member("dn", span.database);
	write_fields(writer, "erqh", span.sent_headers);
	write_fields(writer, "ersh", span.received_headers);
	write_failures(writer, span.failures);
	write_stack(writer, span.stack);
	writer.close('}');
}

void write_info(Writer &writer, const Transaction &t) {
	writer.open("transaction_info", '{');
	writer.member("t_name", t.name);
	writer.member("normalised_tname", t.normalised_name);
	writer.member("http_host", t.host);
	writer.member("http_query_str", t.query_string);
	writer.member("s_time", t.start);
	writer.member("e_time", t.end);
	writer.member("http_method_name", t.method);
	writer.member("bytes_in", t.bytes_in);
	writer.member("bytes_out", t.bytes_out);
	writer.member("transaction_type", static_cast<int64_t>(t.is_web));
	writer.member("thread_id", t.thread);
	writer.member("httpcode", t.status);
	writer.member("cputime", t.cpu);
	writer.member("memalloc", t.memory);
	writer.member("trace_id", t.trace_id);
	writer.member("session_id", t.session_id);
	write_fields(writer, "http_headers", t.request_headers);
	write_fields(writer, t.is_web ? "http_input_params" : "bckgrnd_input_params", t.parameters);
	write_fields(writer, "http_resp_headers", t.response_headers);
	write_fields(writer, "custom_params", t.custom_parameters);
	writer.open("origin", '{');
	writer.member("async", static_cast<int64_t>(t.is_async));
	writer.member("flow", t.flow);
	writer.close('}');
	writer.close('}');
}

} // namespace

std::string to_document(const Transaction &t) {
	/* The texts are as long as the document was. */
	Writer writer(t.texts.bytes() + 1024);
	writer.open('{');
	writer.open("apm", '{');
	writer.open("application_info", '{');
	writer.member("application_name", t.application);
	writer.member("application_group", t.application_group);
	writer.member("instance_id", t.instance_id);
	writer.close('}');
	write_info(writer, t);
	writer.open("method_info", '{');
	writer.open("span_info", '[');
	for (const Span &span : t.spans) {
		write_span(writer, span);
	}
	writer.close(']');
	writer.close('}');
	writer.open("app_parameters", '{');
	write_measures(writer, "sum", t.sums);
	write_measures(writer, "average", t.averages);
	writer.close('}');
	writer.close('}');
	writer.close('}');
	return writer.result();
}

} // namespace kaq
