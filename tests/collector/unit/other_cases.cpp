#include "verdict_cases.h"

using kaq::FindingKind;
using kaq::Serving;

namespace {

const kaq::FindingOptions kOneAtATime = {Serving::kOneAtATime};
const kaq::FindingOptions kThreads = {Serving::kThreads};

VerdictCase thumbnails() {
	Request request = wordpress("/wp-admin/async-upload.php");
	request.open("wp_create_image_subsizes").runs("Imagick::resize", 800).close();
	request.mysqli("INSERT INTO wp_posts (post_author) VALUES (?)", 5).works(60);
	return {"thumbnails",
			FindingKind::kSlowCode,
			800,
			"Imagick::resize itself: 800 of ",
			request.done(),
			kOneAtATime};
}

VerdictCase many_expressions() {
	Request request = mediawiki("/wiki/List");
	for (int i = 0; i < 6; i++) {
		request.open("Parser::parse").works(10).runs("Preprocessor::expand", 90).close();
	}
	return {"many expressions", FindingKind::kSlowCode, 6 * 90,
			"Preprocessor::expand itself in 6 calls: 540 of ", request.done()};
}

VerdictCase code_without_functions() {
	Request request("/old/calc.php");
	request.works(600).mysqli("SELECT a FROM b", 8).works(600);
	return {"code without functions", FindingKind::kSlowCode, 1200,
			"Code that is in no slow function", request.done()};
}

VerdictCase job_that_calculates() {
	Request request = worker("score.php");
	request.waits(3000).open("Score::all").works(400).runs("Matrix::invert", 40000).close();
	return {"job that calculates", FindingKind::kSlowCode, 40000, "Matrix::invert itself",
			request.done()};
}

VerdictCase session_lock() {
	Request request = symfony("/poll");
	request.open("Session::start").works(2).waits(700).close().works(50);
	return {"session lock",
			FindingKind::kWaiting,
			700,
			"Waiting in Session::start, neither working nor calling: 700 of ",
			request.done(),
			kOneAtATime};
}

VerdictCase rate_limiter() {
	Request request = gateway("/v2/items");
	request.open("Limiter::acquire").waits(1000).close();
	request.call("http://items/list", 60).works(25);
	return {"rate limiter", FindingKind::kWaiting,
			1000,           "Waiting in Limiter::acquire",
			request.done(), kOneAtATime};
}

/* Where threads share the processor time nobody can tell what has waited. */
VerdictCase session_lock_in_a_thread() {
	Request request = symfony("/poll");
	request.open("Session::start").works(2).waits(700).close().works(50);
	return {"session lock in a thread", FindingKind::kSlowCode, 702,
			"Session::start itself",    request.done(),         kThreads};
}

VerdictCase uncaught() {
	Request request = symfony("/cart/add");
	request.open("Cart::add")
		.works(5)
		.fails("DomainException", "no stock of article 17", "Warning");
	request.close();
	kaq::Transaction done = request.status(500).done();
	kaq::Failure error;
	error.type = "ERROR";
	error.level = "Error";
	error.file = "/srv/shop/src/Cart.php";
	error.line = 12;
	error.message = "Uncaught DomainException: no stock of article 17 in "
					"/srv/shop/src/Cart.php:12\nStack trace:\n#0 {main}\n  thrown";
	done.spans.front().failures.push_back(error);
	return {"uncaught", FindingKind::kFailure, 0,
			"DomainException: no stock of article * (Cart.php:12) ended the request",
			std::move(done)};
}

VerdictCase no_memory() {
	Request request = worker("report.php");
	request.open("Report::rows").works(300);
	request.fails("ERROR", "Allowed memory size of 134217728 bytes exhausted", "Error");
	return {"no memory", FindingKind::kFailure, 0, "Allowed memory size of * bytes exhausted",
			request.done()};
}

VerdictCase handled_by_the_framework() {
	Request request = symfony("/orders/9");
	request.open("OrderController::show").query("SELECT * FROM ordes WHERE id = ?", 1);
	request.fails("PDOException", "SQLSTATE[42S02]: Table 'shop.ordes' doesn't exist", "Warning");
	request.close().open("ErrorListener::onException").works(20).close().status(500);
	return {"handled by the framework", FindingKind::kFailure, 0, "PDOException: SQLSTATE[42S02]",
			request.done()};
}

VerdictCase out_of_time() {
	Request request = symfony("/export/all");
	request.open("Export::all");
	for (int i = 0; i < 1000; i++) {
		request.query("SELECT * FROM line WHERE order_id = ?", 28).works(2);
	}
	request.fails("ERROR", "Maximum execution time of 30 seconds exceeded", "Error").status(500);
	return {"out of time", FindingKind::kRepeatedStatement, 999 * 28, "1000 times", request.done()};
}

/* Nothing of it is slow by itself. */
VerdictCase out_of_time_all_over() {
	Request request = symfony("/rebuild");
	for (int i = 0; i < 20; i++) {
		request.runs("Rebuild::step" + std::string(1, static_cast<char>('a' + i)), 1500);
	}
	request.fails("ERROR", "Maximum execution time of 30 seconds exceeded", "Error").status(500);
	return {"out of time all over", FindingKind::kTimeLimit, 0,
			"The limit of execution time ended the request after 30", request.done()};
}

VerdictCase limit_of_spans() {
	Request request = worker("crawl.php");
	request.open("Crawl::all");
	for (int i = 0; request.last().id != "span300"; i++) {
		request.open("Crawl::page" + std::string(1, static_cast<char>('a' + i % 20)));
		request.works(12).cache("memcached::set", 0, "Memcached").close();
	}
	request.works(9000);
	kaq::FindingOptions options;
	options.span_limit = 300;
	VerdictCase made = {"limit of spans",    FindingKind::kSlowCode, 9000,
						"Crawl::all itself", request.done(),         options};
	return made;
}

VerdictCase limit_of_spans_alone() {
	Request request = worker("crawl.php");
	request.open("Crawl::all");
	for (int i = 0; request.last().id != "span300"; i++) {
		request.open("Crawl::page" + std::string(1, static_cast<char>('a' + i % 20)));
		request.works(12).cache("memcached::set", 0, "Memcached").close();
	}
	request.waits(9000);
	kaq::FindingOptions options;
	options.span_limit = 300;
	return {"limit of spans alone",    FindingKind::kSpanLimit, 0,
			"what follows is missing", request.done(),          options};
}

VerdictCase busy_loop() {
	Request request = gateway("/proxy");
	request.open("Client::wait");
	for (int i = 0; i < 1200; i++) {
		request.option("curl_multi_exec").works(i % 20 == 0 ? 1 : 0);
	}
	request.open("curl_multi_exec", "HTTP").transfer("http://upstream/", 60);
	return {"busy loop", FindingKind::kPolling, 0,
			"curl_multi_exec 1200 times without waiting in between under Client::wait",
			request.done()};
}

/* What it does after its answer was sent has held up nobody. */
VerdictCase code_that_goes_on() {
	Request request = gateway("/goes-on");
	request.open("Report::fill").works(900).close();
	request.last().end += 4000;
	return {"code that goes on", FindingKind::kSlowCode, 900, "Report::fill itself: 900 of ",
			request.done()};
}

} // namespace

std::vector<VerdictCase> other_cases() {
	std::vector<VerdictCase> cases;
	for (auto make : {thumbnails, many_expressions, code_without_functions, job_that_calculates,
					  session_lock, rate_limiter, session_lock_in_a_thread, uncaught, no_memory,
					  handled_by_the_framework, out_of_time, out_of_time_all_over, limit_of_spans,
					  limit_of_spans_alone, busy_loop, code_that_goes_on}) {
		cases.push_back(make());
	}
	return cases;
}
