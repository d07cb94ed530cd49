#include "verdict_cases.h"

using kaq::Serving;

namespace {

const kaq::FindingOptions kOneAtATime = {Serving::kOneAtATime};
const kaq::FindingOptions kThreads = {Serving::kThreads};

std::string letter(int number) {
	return std::string(1, static_cast<char>('a' + number % 26));
}

HealthyCase front_page() {
	Request request = wordpress("/");
	request.open("WP_Query::get_posts");
	for (int i = 0; i < 26; i++) {
		request.mysqli("SELECT * FROM wp_" + letter(i) + " WHERE id = ?", 1 + i % 3).works(1);
	}
	request.close().runs("get_header", 22).runs("the_loop", 41).runs("get_footer", 18);
	return {"front page", request.done(), kOneAtATime};
}

HealthyCase wiki_page() {
	Request request = mediawiki("/wiki/Main_Page");
	for (int i = 0; i < 14; i++) {
		request.cache("memcached::get", 1, "Memcached");
	}
	request.open("OutputPage::output").works(30).runs("Skin::render", 45);
	return {"wiki page", request.done(), kOneAtATime};
}

HealthyCase json_answer() {
	Request request = symfony("/api/orders/7");
	request.open("OrderController::show").prepare("SELECT * FROM orders WHERE id = ?").execute(3);
	request.prepare("SELECT * FROM line WHERE order_id = ?").execute(4).works(14);
	return {"JSON answer", request.done(), kOneAtATime};
}

HealthyCase small_repetition() {
	Request request = wordpress("/about/");
	request.open("wp_nav_menu");
	for (int i = 0; i < 12; i++) {
		request.mysqli("SELECT * FROM wp_postmeta WHERE post_id = ?", 1).works(2);
	}
	request.close().runs("the_content", 60);
	return {"small repetition", request.done()};
}

HealthyCase cheap_repetition_in_a_long_request() {
	Request request = worker("digest.php");
	for (int i = 0; i < 10; i++) {
		request.runs("Digest::part" + letter(i), 900);
		for (int j = 0; j < 8; j++) {
			request.query("SELECT name FROM reader WHERE id = ?", 3);
		}
	}
	return {"cheap repetition in a long request", request.done()};
}

HealthyCase parallel_transfers() {
	Request request = gateway("/dashboard");
	request.open("Client::all").waits(85).open("curl_multi_exec", "HTTP").waits(1);
	for (int i = 0; i < 5; i++) {
		request.transfer("http://service/" + letter(i), 78 + i);
	}
	request.close().close().works(15);
	return {"parallel transfers", request.done(), kOneAtATime};
}

HealthyCase one_fast_call() {
	Request request = gateway("/user/7");
	request.open("UserClient::get").call("http://users/7", 60).close().works(18);
	return {"one fast call", request.done(), kOneAtATime};
}

HealthyCase two_short_calls() {
	Request request = gateway("/token");
	request.call("http://auth/check", 8).works(2).call("http://users/7", 9).works(30);
	return {"two short calls", request.done(), kOneAtATime};
}

/* Ten minutes of a queue with nothing in it. */
HealthyCase idle_worker() {
	Request request = worker("consume.php");
	for (int i = 0; i < 600; i++) {
		request.open("Queue::pop").query("SELECT id FROM job WHERE done = ? LIMIT ?", 1).close();
		request.waits(1000);
	}
	return {"idle worker", request.done()};
}

/* A job is taken, done and marked as done; then comes the next one. */
HealthyCase busy_worker() {
	Request request = worker("consume.php");
	for (int i = 0; i < 50; i++) {
		request.query("BEGIN", 0).query("SELECT id FROM job LIMIT 1 FOR UPDATE SKIP LOCKED", 2);
		request.open("Job" + letter(i) + "::run").works(180).waits(300).close();
		request.query("DELETE FROM job WHERE id = ?", 2).query("COMMIT", 9);
	}
	return {"busy worker", request.done()};
}

HealthyCase page_not_found() {
	Request request = symfony("/nothing/here");
	request.open("Router::match").works(8);
	request.fails("ResourceNotFoundException", "No route for /nothing/here", "Warning").close();
	return {"page not found", request.status(404).runs("ErrorController::show", 25).done()};
}

HealthyCase old_code_with_notices() {
	Request request = wordpress("/gallery/");
	request.open("gallery_shortcode").works(30);
	request.fails("ERROR", "Undefined index: columns", "Notice");
	request.fails("ERROR", "Division by zero", "Warning");
	return {"old code with notices", request.close().runs("the_content", 45).done()};
}

HealthyCase even_work() {
	Request request = symfony("/catalogue");
	for (int i = 0; i < 8; i++) {
		request.runs("Block" + letter(i) + "::render", 60);
	}
	return {"even work", request.done(), kOneAtATime};
}

HealthyCase login() {
	Request request = symfony("/login");
	request.runs("PasswordHasher::verify", 95).query("UPDATE user SET seen = ? WHERE id = ?", 3);
	return {"login", request.works(30).done(), kOneAtATime};
}

HealthyCase warm_cache() {
	Request request = wordpress("/hot/");
	request.open("WP_Object_Cache::get");
	for (int i = 0; i < 180; i++) {
		request.cache("redis::get", i % 15 == 0 ? 1 : 0);
	}
	return {"warm cache", request.close().runs("the_loop", 55).done()};
}

/* What is read again has changed in between. */
HealthyCase read_after_write() {
	Request request = symfony("/basket/recalculate");
	for (int i = 0; i < 4; i++) {
		request.query("SELECT * FROM basket", 12).query("UPDATE basket SET total = ?", 8).works(5);
	}
	return {"read after write", request.works(90).done()};
}

HealthyCase missing_avatar() {
	Request request = gateway("/avatar");
	request.call("http://images/7.png", 15, 404).works(10);
	return {"missing avatar", request.done(), kOneAtATime};
}

HealthyCase a_few_polls() {
	Request request = gateway("/feed");
	request.open("Client::wait");
	for (int i = 0; i < 12; i++) {
		request.option("curl_multi_exec").waits(5);
	}
	request.open("curl_multi_exec", "HTTP").transfer("http://feed/", 60).close().close();
	return {"a few polls", request.works(20).done(), kOneAtATime};
}

HealthyCase threads_that_take_turns() {
	Request request = symfony("/busy");
	for (int i = 0; i < 6; i++) {
		request.open("Step" + letter(i) + "::run").works(10).waits(50).close();
	}
	return {"threads that take turns", request.done(), kThreads};
}

/* The same question to each of several servers cannot be asked once. */
HealthyCase several_servers() {
	Request request = symfony("/tenants");
	for (int i = 0; i < 6; i++) {
		request.connect("mysql:host=tenant" + letter(i) + ";dbname=shop");
		request.query("SELECT v FROM conf WHERE id = 7", 28);
	}
	return {"several servers", request.works(40).done(), kOneAtATime};
}

/* Which of the two a statement ran on is not known. */
HealthyCase main_server_and_replica() {
	Request request = gateway("/settings");
	request.connect("mysql:host=main;dbname=shop").connect("mysql:host=replica;dbname=shop");
	for (int i = 0; i < 3; i++) {
		request.query("SELECT v FROM conf WHERE id = 7", 28);
	}
	return {"main server and replica", request.works(40).done(), kOneAtATime};
}

/* Whoever else works in that process, this code has not. */
HealthyCase main_code_that_waits() {
	return {"main code that waits", Request("/sleep").works(5).waits(900).done()};
}

HealthyCase empty_request() {
	return {"empty request", Request("/ping").done(), kOneAtATime};
}

} // namespace

std::vector<HealthyCase> healthy_cases() {
	std::vector<HealthyCase> cases;
	for (auto make : {front_page,
					  wiki_page,
					  json_answer,
					  small_repetition,
					  cheap_repetition_in_a_long_request,
					  parallel_transfers,
					  one_fast_call,
					  two_short_calls,
					  idle_worker,
					  busy_worker,
					  page_not_found,
					  old_code_with_notices,
					  even_work,
					  login,
					  warm_cache,
					  read_after_write,
					  missing_avatar,
					  a_few_polls,
					  threads_that_take_turns,
					  several_servers,
					  main_server_and_replica,
					  main_code_that_waits,
					  empty_request}) {
		cases.push_back(make());
	}
	return cases;
}
