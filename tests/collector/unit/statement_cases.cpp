#include "verdict_cases.h"

using kaq::FindingKind;

namespace {

/* 61 times 8 ms, of which one execution would do. */
VerdictCase post_meta() {
	Request request = wordpress("/shop/");
	request.open("WC_Cart::items").works(12);
	for (int i = 0; i < 61; i++) {
		request.mysqli("SELECT meta_key, meta_value FROM wp_postmeta WHERE post_id = ?", 8);
		request.works(i % 4 == 0 ? 1 : 0);
	}
	request.close().open("get_footer").works(25);
	return {"post meta", FindingKind::kRepeatedStatement, 60 * 8,
			"61 times the same statement under WC_Cart::items: ", request.done()};
}

/* Each row of a list loads its customer: 1 ms to prepare, 6 to execute. */
VerdictCase lazy_loading() {
	Request request = symfony("/orders");
	request.open("OrderController::list").prepare("SELECT t0.id FROM orders t0").execute(9);
	for (int i = 0; i < 40; i++) {
		request.open("Order::getCustomer").open("Proxy::load");
		request.open("Connection::prepare").prepare("SELECT * FROM customer WHERE id = ?", 1);
		request.close().open("Statement::execute").execute(6).close().close().close();
	}
	request.runs("Template::render", 45);
	return {"lazy loading", FindingKind::kRepeatedStatement, 39 * 7,
			"40 times the same statement under OrderController::list through Order::getCustomer",
			request.done()};
}

VerdictCase links_of_a_page() {
	Request request = mediawiki("/wiki/Zebra");
	request.open("Parser::replaceInternalLinks").works(20);
	for (int i = 0; i < 120; i++) {
		request.open("Title::exists").open("Database::query");
		request.mysqli("SELECT page_id FROM page WHERE page_title = ?", 2).close().close();
	}
	request.close().runs("OutputPage::output", 40);
	return {"links of a page", FindingKind::kRepeatedStatement, 119 * 2,
			"under Parser::replaceInternalLinks through Title::exists", request.done()};
}

VerdictCase loop_in_a_loop() {
	Request request = symfony("/report/9");
	request.open("ReportController::show");
	for (int section = 0; section < 5; section++) {
		request.open("Report::section").works(7);
		for (int row = 0; row < 12; row++) {
			request.prepare("SELECT SUM(total) FROM line WHERE day = ?").execute(3);
		}
		request.close();
	}
	return {"loop in a loop", FindingKind::kRepeatedStatement, 59 * 3,
			"60 times the same statement under ReportController::show through Report::section",
			request.done()};
}

VerdictCase row_by_row_import() {
	Request request = worker("import.php");
	request.open("Importer::import").works(150);
	for (int i = 0; i < 200; i++) {
		request.query("INSERT INTO stock (sku, amount) VALUES (?)", 4, "pg_query_params",
					  "Postgres");
	}
	return {"import row by row", FindingKind::kRepeatedStatement, 199 * 4,
			"200 times the same statement under Importer::import", request.done()};
}

VerdictCase prepared_once() {
	Request request = worker("sync.php");
	request.open("Stock::sync").works(30).prepare("UPDATE stock SET amount = ? WHERE sku = ?", 2);
	for (int i = 0; i < 80; i++) {
		request.execute(5);
	}
	return {"prepared once", FindingKind::kRepeatedStatement, 79 * 5, "80 times", request.done()};
}

/* 2 to 12 ms, and other statements in between. */
VerdictCase uneven_times() {
	Request request = wordpress("/news/");
	request.open("the_loop");
	int64_t total = 0;
	for (int i = 0; i < 33; i++) {
		int64_t ms = 2 + i % 11;
		total += ms;
		request.open("get_the_terms").mysqli("SELECT * FROM wp_terms WHERE object_id = ?", ms);
		request.close().works(2);
		request.mysqli(
			"SELECT COUNT(*) FROM table_" + std::string(1, static_cast<char>('a' + i % 26)), 1);
	}
	return {"uneven times", FindingKind::kRepeatedStatement, total - 12,
			"33 times the same statement under the_loop through get_the_terms", request.done()};
}

/* Two loops over the same statement: each of them could ask once. */
VerdictCase two_loops() {
	Request request = symfony("/checkout");
	request.open("Checkout::run");
	for (const char *loop : {"Tax::forItems", "Shipping::forItems"}) {
		request.open(loop).works(4);
		for (int i = 0; i < 30; i++) {
			request.query("SELECT * FROM product WHERE id = ?", 5);
		}
		request.close();
	}
	return {"two loops", FindingKind::kRepeatedStatement, 2 * 29 * 5,
			"60 times the same statement under Checkout::run", request.done()};
}

/* A few executions elsewhere do not hide where the loop is. */
VerdictCase loop_and_strays() {
	Request request = symfony("/cart");
	request.open("Session::user").query("SELECT * FROM price WHERE id = ?", 3).close();
	request.open("Cart::items");
	for (int i = 0; i < 50; i++) {
		request.query("SELECT * FROM price WHERE id = ?", 4);
	}
	request.close().open("Footer::teaser").query("SELECT * FROM price WHERE id = ?", 3).close();
	return {"loop and strays", FindingKind::kRepeatedStatement, 49 * 4,
			"50 times the same statement under Cart::items: ", request.done()};
}

VerdictCase settings_again() {
	Request request = symfony("/settings");
	for (int i = 0; i < 6; i++) {
		request.open("Settings::all").query("SELECT name, value FROM settings", 25).close();
		request.works(9);
	}
	return {"settings again and again", FindingKind::kDuplicateStatement, 5 * 25,
			"6 times the same statement with the same values under HttpKernel::handle",
			request.done()};
}

/* Literals were kept, and are the same. */
VerdictCase same_user() {
	Request request = symfony("/profile");
	for (int i = 0; i < 4; i++) {
		request.open("User::current").query("SELECT * FROM user WHERE id = 42", 40).close();
	}
	request.query("SELECT * FROM user WHERE id = 43", 40).works(100);
	return {"same user", FindingKind::kDuplicateStatement, 3 * 40,
			"4 times the same statement with the same values", request.done()};
}

/* Four times the same row, and nothing but its literal says so. */
VerdictCase same_setting() {
	Request request = wordpress("/");
	for (int i = 0; i < 4; i++) {
		request.mysqli("SELECT v FROM conf WHERE id = 7", 80);
	}
	return {"same setting", FindingKind::kDuplicateStatement, 3 * 80,
			"4 times the same statement with the same values", request.done()};
}

/* Prepared once, with a literal and no place for another. */
VerdictCase same_prepared() {
	Request request = symfony("/currency");
	request.open("Currency::rate").prepare("SELECT rate FROM currency WHERE code = 'CHF'");
	for (int i = 0; i < 5; i++) {
		request.execute(30);
	}
	return {"same prepared", FindingKind::kDuplicateStatement, 4 * 30,
			"5 times the same statement with the same values under Currency::rate", request.done()};
}

/* As before prepared statements: values are literals, and none is the same. */
VerdictCase literals_of_a_loop() {
	Request request = wordpress("/archive/");
	request.open("Archive::posts");
	for (int i = 0; i < 40; i++) {
		request.mysqli("SELECT * FROM wp_posts WHERE ID = " + std::to_string(100 + i), 6);
	}
	return {"literals of a loop", FindingKind::kRepeatedStatement, 39 * 6,
			"40 times the same statement under Archive::posts", request.done()};
}

VerdictCase slow_report() {
	Request request = symfony("/admin/report");
	request.open("ReportController::revenue").works(20);
	request.query("SELECT SUM(total) FROM `orders` JOIN line ON line.order_id = orders.id", 900);
	request.close().runs("Template::render", 90);
	return {"slow report", FindingKind::kSlowStatement, 900,
			"One statement on orders under ReportController::revenue: 900 of ", request.done()};
}

VerdictCase slow_search() {
	Request request = mediawiki("/index.php");
	request.open("SpecialSearch::execute").open("Database::query");
	request.mysqli("SELECT page_id FROM searchindex WHERE MATCH(si_text) AGAINST(?)", 350);
	request.close().works(35);
	return {"slow search", FindingKind::kSlowStatement, 350, "on searchindex", request.done()};
}

VerdictCase three_slow_months() {
	Request request = worker("statistics.php");
	for (int month = 0; month < 3; month++) {
		request.open("Statistics::month").query("SELECT COUNT(*) FROM visit WHERE month = ?", 220);
		request.works(15).close();
	}
	return {"three slow months", FindingKind::kSlowStatement, 3 * 220,
			"3 times a slow statement on visit", request.done()};
}

VerdictCase slow_prepared_one() {
	Request request = symfony("/export");
	request.open("Export::rows").prepare("SELECT * FROM ledger WHERE year = ?", 1).execute(480);
	request.works(60);
	return {"slow prepared one", FindingKind::kSlowStatement, 481, "on ledger", request.done()};
}

VerdictCase repeated_beside_slow() {
	Request request = symfony("/dashboard");
	request.query("SELECT COUNT(*) FROM event", 150).open("Widget::all");
	for (int i = 0; i < 100; i++) {
		request.query("SELECT * FROM widget WHERE id = ?", 3);
	}
	return {"repeated beside slow", FindingKind::kRepeatedStatement, 99 * 3, "under Widget::all",
			request.done()};
}

VerdictCase slow_beside_repeated() {
	Request request = symfony("/dashboard");
	request.query("SELECT COUNT(*) FROM event", 600).open("Widget::all");
	for (int i = 0; i < 51; i++) {
		request.query("SELECT * FROM widget WHERE id = ?", 3);
	}
	return {"slow beside repeated", FindingKind::kSlowStatement, 600, "on event", request.done()};
}

VerdictCase one_entry_at_a_time() {
	Request request = gateway("/catalogue");
	request.open("Catalogue::prices").works(50);
	for (int i = 0; i < 300; i++) {
		request.cache("redis::get", 1);
	}
	return {"one entry at a time", FindingKind::kRepeatedCacheCall, 299,
			"300 times redis::get under Catalogue::prices", request.done()};
}

VerdictCase distant_cache() {
	Request request = mediawiki("/wiki/Lion");
	request.open("MessageCache::load").works(10);
	for (int i = 0; i < 90; i++) {
		request.cache("memcached::get", 4, "Memcached");
	}
	return {"distant cache", FindingKind::kRepeatedCacheCall, 89 * 4,
			"times memcached::get under MessageCache::load", request.done()};
}

/* What runs on after the page was sent has not held it up. */
VerdictCase outlived() {
	Request request = symfony("/outlived");
	request.works(100).query("SELECT * FROM log WHERE day = ?", 500);
	request.last().end += 700;
	return {"a statement that outlives its request", FindingKind::kSlowStatement, 500, "on log",
			request.done()};
}

} // namespace

std::vector<VerdictCase> statement_cases() {
	std::vector<VerdictCase> cases;
	for (auto make : {post_meta,
					  lazy_loading,
					  links_of_a_page,
					  loop_in_a_loop,
					  row_by_row_import,
					  prepared_once,
					  uneven_times,
					  two_loops,
					  loop_and_strays,
					  settings_again,
					  same_user,
					  same_setting,
					  same_prepared,
					  literals_of_a_loop,
					  slow_report,
					  slow_search,
					  three_slow_months,
					  slow_prepared_one,
					  repeated_beside_slow,
					  slow_beside_repeated,
					  one_entry_at_a_time,
					  distant_cache,
					  outlived}) {
		cases.push_back(make());
	}
	return cases;
}
