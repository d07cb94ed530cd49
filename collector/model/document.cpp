#include "model/document.h"

#include <cstdio>

namespace kaq {
namespace {

/* Writes JSON without blanks; knows where a comma is due. */
class Writer {
public:
	void open(char bracket) {
		separate();
		out_ += bracket;
		is_first_ = true;
	}

	void open(std::string_view name, char bracket) {
		key(name);
		out_ += bracket;
		is_first_ = true;
	}

	void close(char bracket) {
		out_ += bracket;
		is_first_ = false;
	}

	void text(std::string_view value) {
		separate();
		quote(value);
	}

	void number(int64_t value) {
		separate();
		out_ += std::to_string(value);
	}

	/* Left out if it is empty. */
	void member(std::string_view name, std::string_view value) {
		if (!value.empty()) {
			named(name, value);
		}
	}

	void named(std::string_view name, std::string_view value) {
		key(name);
		quote(value);
	}

	/* Left out if it is 0. */
	void member(std::string_view name, int64_t value) {
		if (value != 0) {
			key(name);
			out_ += std::to_string(value);
		}
	}

	void member(std::string_view name, double value) {
		char digits[32];
		snprintf(digits, sizeof digits, "%.17g", value);
		key(name);
		out_ += digits;
	}

	std::string result() {
		return std::move(out_);
	}

private:
	void separate() {
		if (!is_first_) {
			out_ += ',';
		}
		is_first_ = false;
	}

	void key(std::string_view name) {
		separate();
		quote(name);
		out_ += ':';
	}

	void quote(std::string_view text) {
		out_ += '"';
		size_t kept_from = 0;
		for (size_t at = 0; at < text.size(); at++) {
			auto byte = static_cast<unsigned char>(text[at]);
			if (byte >= ' ' && byte != '"' && byte != '\\') {
				continue;
			}
			out_.append(text, kept_from, at - kept_from);
			kept_from = at + 1;
			if (byte == '"' || byte == '\\') {
				out_ += '\\';
				out_ += text[at];
			} else {
				char escape[7];
				snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
				out_ += escape;
			}
		}
		out_.append(text, kept_from);
		out_ += '"';
	}

	std::string out_;
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
		writer.member(measure.name, measure.value);
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
	Writer writer;
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
