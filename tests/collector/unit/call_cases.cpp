#include "verdict_cases.h"

using kaq::FindingKind;

namespace {

/* 350 ms in all, 80 of them for the longest one. */
VerdictCase seven_services() {
	Request request = gateway("/dashboard");
	request.open("Dashboard::build").works(3);
	for (int ms : {40, 45, 50, 80, 45, 50, 40}) {
		request.call("http://service.internal/part", ms).works(1);
	}
	request.close().runs("Json::encode", 12);
	return {"seven services", FindingKind::kCallsInSequence, 350 - 80,
			"7 HTTP calls one after the other under Dashboard::build: 270 of ", request.done()};
}

VerdictCase three_clients() {
	Request request = gateway("/me");
	request.open("MeController::show");
	request.open("UserClient::get").call("https://users/7", 120).works(2).close();
	request.open("OrderClient::latest").works(2).call("https://orders?user=7", 110).close();
	request.open("MailClient::unread").call("https://mail/unread", 90).close().works(15);
	return {"three clients", FindingKind::kCallsInSequence, 110 + 90,
			"under MeController::show: 200 of ", request.done()};
}

VerdictCase web_hooks() {
	Request request = worker("hooks.php");
	request.open("Hooks::deliver");
	for (int i = 0; i < 12; i++) {
		request.works(1).call("https://customer.example/hook", 30, i % 3 == 0 ? 404 : 204);
	}
	return {"web hooks", FindingKind::kCallsInSequence, 11 * 30, "12 HTTP calls", request.done()};
}

/* Each answer is stored before the next question is asked. */
VerdictCase ask_and_store() {
	Request request = worker("weather.php");
	request.open("Weather::update");
	for (int i = 0; i < 20; i++) {
		request.call("https://weather.example/city", 25);
		request.query("UPDATE weather SET degrees = ? WHERE city = ?", 2).works(1);
	}
	return {"ask and store", FindingKind::kCallsInSequence, 19 * 25, "20 HTTP calls",
			request.done()};
}

/* Transfers that already overlap are none of the sequence. */
VerdictCase sequence_beside_parallel() {
	Request request = gateway("/home");
	request.open("Home::teasers").waits(60).open("curl_multi_exec", "HTTP");
	request.transfer("http://teaser/1", 55).transfer("http://teaser/2", 60).close().close();
	request.works(40).open("Home::blocks");
	for (int i = 0; i < 4; i++) {
		request.call("http://blocks/one", 75).works(2);
	}
	return {"sequence beside parallel", FindingKind::kCallsInSequence, 3 * 75,
			"4 HTTP calls one after the other under Home::blocks", request.done()};
}

VerdictCase slow_payment() {
	Request request = symfony("/checkout/pay");
	request.open("Payment::charge")
		.works(5)
		.call("https://api.bank.example/v1/charges/81723", 1500);
	request.close().query("UPDATE orders SET paid = ? WHERE id = ?", 4).works(30);
	return {"slow payment", FindingKind::kSlowCall, 1500,
			"One HTTP call to api.bank.example/v1/charges/* under Payment::charge: 1500 of ",
			request.done()};
}

/* The slowest of three transfers runs 810 ms longer than the others. */
VerdictCase straggler() {
	Request request = gateway("/search");
	request.open("Search::all").works(3).waits(900).open("curl_multi_exec", "HTTP").waits(1);
	request.transfer("http://books/find", 80).last().end -= 820;
	request.last().start -= 820;
	request.transfer("http://films/find", 90).last().end -= 810;
	request.last().start -= 810;
	request.transfer("http://music/find", 900);
	return {"straggler", FindingKind::kSlowCall, 810, "to music/find", request.done()};
}

/* With the others beside it 500 ms would be left, of which 50 would not go away. */
VerdictCase slow_one_of_three() {
	Request request = gateway("/offer");
	request.open("Offer::build")
		.call("http://a/x", 50)
		.call("http://b/x", 500)
		.call("http://c/x", 50);
	return {"slow one of three", FindingKind::kSlowCall, 450, "to b/x", request.done()};
}

VerdictCase twice_slow() {
	Request request = wordpress("/wp-admin/");
	request.open("wp_version_check").call("https://api.wordpress.example/core", 700).close();
	request.works(400).open("wp_update_plugins");
	request.call("https://api.wordpress.example/plugins", 600).close().works(500);
	return {"slow updates", FindingKind::kSlowCall, 700, "api.wordpress.example/core",
			request.done()};
}

VerdictCase no_answer() {
	Request request = symfony("/product/7");
	request.open("Rating::fetch").call("https://ratings.example/7", 2000, 0);
	request.fails("RuntimeException", "Connection timed out after 2000 ms", "Warning").close();
	request.runs("Template::render", 80);
	return {"no answer", FindingKind::kFailedCall, 2000,
			"One HTTP call to ratings.example failed (no answer): 2000 of ", request.done()};
}

VerdictCase retries() {
	Request request = gateway("/quote");
	request.open("Quote::get").call("https://quotes/now", 500, 503).waits(20);
	request.call("https://quotes/now", 500, 503).waits(20).call("https://quotes/now", 80);
	return {"retries", FindingKind::kFailedCall, 2 * 500,
			"2 HTTP calls to quotes failed (status 503)", request.done()};
}

VerdictCase refused() {
	Request request = gateway("/status");
	request.open("Metrics::push").call("http://metrics:9091/push", 1, 0).close().works(40);
	return {"refused", FindingKind::kFailedCall, 0, "to metrics:9091 failed (no answer)",
			request.done()};
}

} // namespace

std::vector<VerdictCase> call_cases() {
	std::vector<VerdictCase> cases;
	for (auto make :
		 {seven_services, three_clients, web_hooks, ask_and_store, sequence_beside_parallel,
		  slow_payment, straggler, slow_one_of_three, twice_slow, no_answer, retries, refused}) {
		cases.push_back(make());
	}
	return cases;
}
