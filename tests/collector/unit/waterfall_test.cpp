#include "cli/waterfall.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/format.h"
#include "query/request_json.h"
#include "query/trace_json.h"
#include "requests.h"

namespace {

using namespace kaq;
using nlohmann::json;

json answer_of(const Transaction &transaction) {
	json answer = details_json(transaction, Serving::kUnknown);
	answer["spans"] = spans_json(transaction);
	answer["critical_path"] = critical_path_json(transaction);
	return answer;
}

Transaction cart(int items) {
	Request request("/cart");
	request.open("Cart::items");
	for (int i = 0; i < items; i++) {
		request.open("Item::load").query("SELECT a, b FROM item WHERE id=" + std::to_string(i), 8);
		request.works(2).close();
	}
	return request.close().runs("render", 20).done();
}

json request_of_trace(const Transaction &transaction, const std::string &application, int64_t at) {
	json each = {{"request", {{"application", application}, {"method", "POST"}, {"path", "/"}}}};
	each["spans"] = spans_json(transaction);
	each["start_ms"] = at;
	return each;
}

/* A request, and of each of these spans of it one of another service that it called. */
json trace_of(const Transaction &transaction, const std::vector<int> &callers) {
	json requests = json::array({request_of_trace(transaction, "shop", 0)});
	Request callee("/");
	callee.works(3);
	Transaction called = callee.done();
	for (int span : callers) {
		int64_t at = requests[0]["spans"][static_cast<size_t>(span)]["start_ms"];
		json each = request_of_trace(called, "mail" + std::to_string(span), at);
		each["caller"] = {{"request", 0}, {"span", span}};
		requests.push_back(std::move(each));
	}
	return {{"requests", std::move(requests)}};
}

size_t count_services(const std::vector<CallNode> &nodes) {
	size_t count = 0;
	for (const CallNode &node : nodes) {
		count += (node.layer == "service" ? 1 : 0) + count_services(node.children);
	}
	return count;
}

Terminal terminal_of(int width) {
	Terminal terminal;
	terminal.width = width;
	return terminal;
}

std::vector<std::string> lines_of(const std::string &text) {
	std::vector<std::string> lines;
	for (size_t at = 0; at < text.size();) {
		size_t end = text.find('\n', at);
		lines.push_back(text.substr(at, end - at));
		at = end + 1;
	}
	return lines;
}

TEST(CallTree, SumsUpCallsThatDoTheSame) {
	std::vector<CallNode> trees = call_trees(answer_of(cart(61)));
	ASSERT_EQ(trees.size(), 1u);
	ASSERT_EQ(trees[0].children.size(), 2u);
	const CallNode &items = trees[0].children[0];
	ASSERT_EQ(items.children.size(), 1u);
	const CallNode &load = items.children[0];
	EXPECT_EQ(load.label, "Item::load");
	EXPECT_EQ(load.count, 61);
	EXPECT_EQ(load.total, 610);
	EXPECT_EQ(load.own, 122);
	ASSERT_EQ(load.children.size(), 1u);
	EXPECT_EQ(load.children[0].count, 61);
	EXPECT_EQ(load.children[0].total, 488);
	EXPECT_EQ(load.children[0].label, "SELECT a, b FROM item WHERE id=?");
}

TEST(CallTree, LeavesFewCallsAlone) {
	std::vector<CallNode> trees = call_trees(answer_of(cart(2)));
	EXPECT_EQ(trees[0].children[0].children.size(), 2u);
}

TEST(CallTree, FoldsWhatTellsNothing) {
	Request request("/");
	request.call("http://api/a", 10, 503);
	std::vector<CallNode> trees = call_trees(answer_of(request.done()));
	ASSERT_EQ(trees[0].children.size(), 2u);
	EXPECT_TRUE(trees[0].children[0].is_summed_up);
	EXPECT_EQ(trees[0].children[0].count, 3);
	EXPECT_EQ(trees[0].children[1].label, "http://api/a \u2192 503");
	EXPECT_TRUE(trees[0].children[1].is_failed);
}

TEST(CallTree, CutsWhatIsTooDeep) {
	Request request("/");
	for (int i = 0; i < 1000; i++) {
		request.open("f");
	}
	request.works(5);
	std::vector<CallNode> trees = call_trees(answer_of(request.done()));
	EXPECT_LE(count_rows(trees), kDeepestTree + 2);
}

TEST(CallTree, PrunesSmallCallsAndNoFailures) {
	Request request("/");
	for (int i = 0; i < 100; i++) {
		request.runs("small" + std::to_string(i), 1);
	}
	request.open("bad").fails("E", "m", "Error").close().runs("large", 900);
	std::vector<CallNode> trees = call_trees(answer_of(request.done()));
	EXPECT_EQ(count_rows(trees), 1u + 100 + 2 + 1);
	prune(trees, 60);
	ASSERT_EQ(trees[0].children.size(), 3u);
	int64_t small = 0;
	for (const CallNode &child : trees[0].children) {
		small += child.is_summed_up ? child.count : 0;
	}
	EXPECT_EQ(small, 100);
	EXPECT_EQ(count_rows(trees), 1u + 1 + 2 + 1);
}

TEST(CallTree, PrunesNoRequestOfAnotherService) {
	Request request("/");
	std::vector<int> callers;
	for (int i = 0; i < 30; i++) {
		request.open("small" + std::to_string(i)).open("Queue::push").works(1);
		request.call("http://mail/", 0).close().close();
		if (i % 3 == 0) {
			callers.push_back(6 + 6 * i);
		}
	}
	request.runs("large", 900);
	Transaction transaction = request.done();
	ASSERT_EQ(transaction.spans[static_cast<size_t>(callers[1])].name, "curl_exec");
	std::vector<CallNode> trees = call_trees(trace_of(transaction, callers));
	ASSERT_EQ(count_services(trees), 11u);
	size_t rows = count_rows(trees);
	prune(trees, 40);
	EXPECT_LT(count_rows(trees), rows);
	EXPECT_EQ(count_services(trees), 11u);
}

TEST(CallTree, PrunesNoSmallCallOfAnotherServiceThatIsAlone) {
	Request request("/");
	request.open("push").call("http://mail/", 0).close();
	for (int i = 0; i < 20; i++) {
		request.open("f" + std::to_string(i)).works(50);
	}
	std::vector<CallNode> trees = call_trees(trace_of(request.done(), {5}));
	ASSERT_EQ(count_services(trees), 2u);
	prune(trees, 5);
	EXPECT_EQ(count_services(trees), 2u);
}

TEST(CallTree, FoldsNoTransferThatReachedAnotherService) {
	Request request("/");
	request.open("curl_multi_exec", "HTTP").close().open("curl_multi_exec", "HTTP").close();
	request.open("curl_multi_exec", "HTTP").close();
	Transaction transaction = request.done();
	ASSERT_EQ(call_trees(answer_of(transaction))[0].children.size(), 1u);
	std::vector<CallNode> trees = call_trees(trace_of(transaction, {2}));
	EXPECT_EQ(count_services(trees), 2u);
	EXPECT_EQ(trees[0].children.size(), 2u);
}

TEST(CallTree, ShowsServicesBelowWhatIsTooDeep) {
	Request request("/");
	for (int i = 0; i < 1000; i++) {
		request.open("f" + std::to_string(i));
	}
	request.works(5);
	std::vector<CallNode> trees = call_trees(trace_of(request.done(), {1000, 300}));
	EXPECT_EQ(count_services(trees), 3u);
	EXPECT_LE(count_rows(trees), kDeepestTree + 4);
}

TEST(Waterfall, IsAsWideAsTheTerminal) {
	std::vector<CallNode> trees = call_trees(answer_of(cart(61)));
	for (int width : {40, 80, 140}) {
		for (const std::string &line : lines_of(waterfall(trees, terminal_of(width), 100))) {
			EXPECT_LE(width_of(line), static_cast<size_t>(width)) << line;
		}
	}
}

TEST(Waterfall, DrawsWhenACallRanAndWhenItHeldAllUp) {
	Request request("/");
	request.works(250).open("half").works(500).close().works(250);
	Terminal terminal = terminal_of(100);
	std::vector<std::string> lines =
		lines_of(waterfall(call_trees(answer_of(request.done())), terminal, 100));
	ASSERT_EQ(lines.size(), 3u);
	std::string outer = lines[1].substr(lines[1].find('#'));
	std::string inner = lines[2].substr(lines[2].find('#'));
	size_t bar = outer.size();
	EXPECT_NEAR(static_cast<double>(inner.size()), static_cast<double>(bar) / 2, 1);
	EXPECT_EQ(inner, std::string(inner.size(), '#'));
	EXPECT_EQ(outer.substr(bar / 2 - 2, 4), "----");
	EXPECT_EQ(outer.front(), '#');
	EXPECT_EQ(outer.back(), '#');
}

TEST(Waterfall, SaysHowManyRowsAreLeftOut) {
	std::string text = waterfall(call_trees(answer_of(cart(2))), terminal_of(80), 3);
	EXPECT_NE(text.find("4 more rows: --all"), std::string::npos) << text;
}

TEST(Waterfall, ShowsFailuresWithoutControlCharacters) {
	Request request("/");
	request.open("bad").fails("DomainException", "no\x1b[1m stock", "Error");
	std::string text = waterfall(call_trees(answer_of(request.done())), terminal_of(80), 100);
	EXPECT_NE(text.find("! DomainException: no?[1m stock (Cart.php:12)"), std::string::npos)
		<< text;
}

TEST(Waterfall, KeepsLabelsReadableHoweverDeepTheyAre) {
	Request request("/");
	for (int i = 0; i < 90; i++) {
		request.open("deep" + std::to_string(i)).works(1);
	}
	std::string text = waterfall(call_trees(answer_of(request.done())), terminal_of(80), 100);
	EXPECT_NE(text.find("deep80 "), std::string::npos) << text;
}

TEST(Waterfall, LeavesTheColumnsOfAStatementOutFirst) {
	std::string statement = "SELECT alpha, beta, gamma FROM product WHERE id = ?";
	EXPECT_EQ(shortened_statement(statement, 60), statement);
	EXPECT_EQ(shortened_statement(statement, 40), "SELECT \u2026 FROM product WHERE id = ?");
	EXPECT_EQ(shortened_statement("UPDATE product SET a = ?", 10), "UPDATE pr\u2026");
}

} // namespace
