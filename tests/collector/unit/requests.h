/* Requests as the extension records them, written call by call. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/transaction.h"

/*
 * Time passes in what is written, and nowhere else: `works` uses the processor, `waits` does not.
 * Calls lie within those that are open.
 */
class Request {
public:
	explicit Request(std::string_view name, bool is_web = true) {
		transaction_.name = keep(name);
		transaction_.is_web = is_web;
		transaction_.status = is_web ? 200 : 0;
		transaction_.trace_id = "4bf92f3577b34da6a3ce929d0e0e4736";
		transaction_.start = now_;
		open("main");
	}

	Request &open(std::string_view name, std::string_view component = "PHP") {
		kaq::Span &span = add(name, component);
		open_.push_back(static_cast<int32_t>(transaction_.spans.size()) - 1);
		span.end = now_;
		return *this;
	}

	Request &close() {
		transaction_.spans[static_cast<size_t>(open_.back())].end = now_;
		open_.pop_back();
		return *this;
	}

	Request &works(int64_t ms) {
		transaction_.cpu += ms;
		return waits(ms);
	}

	Request &waits(int64_t ms) {
		now_ += ms;
		return *this;
	}

	/* A function of user code that does nothing but work. */
	Request &runs(std::string_view name, int64_t ms) {
		return open(name).works(ms).close();
	}

	Request &query(std::string_view text, int64_t ms, std::string_view name = "PDO::query",
				   std::string_view component = "PDO") {
		kaq::Span &span = external(name, component, ms);
		span.query = keep(text);
		return *this;
	}

	Request &mysqli(std::string_view text, int64_t ms) {
		return query(text, ms, "mysqli_query", "MySQLi");
	}

	Request &mysqli_select(std::string_view database) {
		kaq::Span &span = external("mysqli_select_db", "MySQLi", 0);
		span.database = keep(database);
		return *this;
	}

	Request &prepare(std::string_view text, int64_t ms = 0) {
		kaq::Span &span = external("PDO::prepare", "PDO", ms);
		span.query = keep(text);
		span.is_external = false;
		return *this;
	}

	Request &execute(int64_t ms) {
		external("PDOStatement::execute", "PDO", ms);
		return *this;
	}

	Request &connect(std::string_view source, int64_t ms = 1) {
		external("PDO::__construct", "PDO", ms).host = keep(source);
		return *this;
	}

	Request &cache(std::string_view name, int64_t ms, std::string_view component = "Redis") {
		external(name, component, ms);
		return *this;
	}

	/* A call by curl_exec, with what comes before it. */
	Request &call(std::string_view url, int64_t ms, int64_t status = 200) {
		option("curl_init").option("curl_setopt (10002)").option("curl_setopt (19913)");
		kaq::Span &span = external("curl_exec", "HTTP", ms);
		span.host = keep(url);
		span.status = status;
		span.is_failed = status == 0 || status >= 400;
		return *this;
	}

	Request &option(std::string_view name) {
		add(name, "HTTP");
		return *this;
	}

	/* A transfer of a multi handle that ends now, as a child of the call that is open. */
	Request &transfer(std::string_view url, int64_t ms, int64_t status = 200) {
		kaq::Span &span = add("curl_multi_exec", "HTTP");
		span.start = now_ - ms;
		span.is_external = true;
		span.is_async = true;
		span.host = keep(url);
		span.status = status;
		return *this;
	}

	/* Of the call that is open. */
	Request &fails(std::string_view type, std::string_view message, std::string_view level,
				   std::string_view file = "/srv/shop/src/Cart.php", int64_t line = 12) {
		kaq::Failure failure;
		failure.type = keep(type);
		failure.message = keep(message);
		failure.level = keep(level);
		failure.file = keep(file);
		failure.line = line;
		failure.time = now_;
		kaq::Span &span = transaction_.spans[static_cast<size_t>(open_.back())];
		span.failures.push_back(failure);
		span.is_failed = true;
		return *this;
	}

	Request &status(int64_t status) {
		transaction_.status = status;
		return *this;
	}

	/* The span that was written last. */
	kaq::Span &last() {
		return transaction_.spans.back();
	}

	std::string_view keep(std::string_view text) {
		return transaction_.texts.keep(text);
	}

	kaq::Transaction done() {
		while (!open_.empty()) {
			close();
		}
		transaction_.end = now_;
		return std::move(transaction_);
	}

private:
	kaq::Span &add(std::string_view name, std::string_view component) {
		kaq::Span &span = transaction_.spans.emplace_back();
		span.name = keep(name);
		span.component = keep(component);
		span.id = keep("span" + std::to_string(transaction_.spans.size() - 1));
		span.parent = open_.empty() ? -1 : open_.back();
		if (span.parent >= 0) {
			span.parent_id = transaction_.spans[static_cast<size_t>(span.parent)].id;
		}
		span.start = now_;
		span.end = now_;
		return span;
	}

	kaq::Span &external(std::string_view name, std::string_view component, int64_t ms) {
		kaq::Span &span = add(name, component);
		span.is_external = true;
		now_ += ms;
		span.end = now_;
		return span;
	}

	kaq::Transaction transaction_;
	std::vector<int32_t> open_;
	int64_t now_ = 1795264027000;
};
