#include "analysis/facts.h"

#include <gtest/gtest.h>

#include "requests.h"

using kaq::Facts;
using kaq::facts_of;

TEST(StatementFacts, AreCountedByTextAndCaller) {
	Request request("/");
	request.connect("mysql:host=DB1;port=3307;dbname=shop;charset=utf8mb4");
	request.open("Cart::items");
	request.query("SELECT * FROM item WHERE id = 7", 10);
	request.query("SELECT * FROM item WHERE id = 8", 30);
	request.last().is_failed = true;
	request.close().query("SELECT * FROM item WHERE id = ?", 5);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(2u, facts.statements.size());
	const kaq::StatementFacts &first = facts.statements[0];
	EXPECT_EQ("SELECT * FROM item WHERE id = ?", first.text);
	EXPECT_EQ("PDO", first.component);
	EXPECT_EQ("db1:3307", first.server);
	EXPECT_EQ("shop", first.database);
	EXPECT_EQ("Cart::items", first.caller);
	EXPECT_EQ(2, first.count);
	EXPECT_EQ(40, first.total);
	EXPECT_EQ(30, first.longest);
	EXPECT_EQ(1, first.failed);
	EXPECT_EQ("main", facts.statements[1].caller);
	EXPECT_EQ(first.text, facts.statements[1].text);
}

TEST(StatementFacts, ServerIsThatOfTheConnectionMadeBefore) {
	Request request("/");
	request.query("SELECT 1", 1).connect("pgsql:host=a port=5432 dbname=x");
	request.query("SELECT 1", 1).connect("sqlite:/srv/shop.db").query("SELECT 1", 1);
	request.mysqli("SELECT 1", 1);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(4u, facts.statements.size());
	EXPECT_EQ("", facts.statements[0].server);
	EXPECT_EQ("a", facts.statements[1].server);
	EXPECT_EQ("x", facts.statements[1].database);
	EXPECT_EQ("", facts.statements[2].server);
	EXPECT_EQ("/srv/shop.db", facts.statements[2].database);
	EXPECT_EQ("", facts.statements[3].database);
}

TEST(StatementFacts, ServersOfOtherComponents) {
	Request request("/");
	request.cache("mysqli_connect", 1, "MySQLi");
	request.last().host = "p:db2";
	request.last().port = 3306;
	request.last().database = "wiki";
	request.mysqli("SELECT 1", 1);
	request.cache("mysqli_select_db", 1, "MySQLi").last().database = "other";
	request.mysqli("SELECT 1", 1);
	request.cache("pg_connect", 1, "Postgres");
	request.last().host = "host='pg1' port=6432 dbname=shop user=u";
	request.query("SELECT 1", 1, "pg_query", "Postgres");
	Facts facts = facts_of(request.done());
	ASSERT_EQ(3u, facts.statements.size());
	EXPECT_EQ("db2", facts.statements[0].server);
	EXPECT_EQ("wiki", facts.statements[0].database);
	EXPECT_EQ("db2", facts.statements[1].server);
	EXPECT_EQ("other", facts.statements[1].database);
	EXPECT_EQ("pg1:6432", facts.statements[2].server);
}

TEST(StatementFacts, ExecutionHasTheTextThatWasPrepared) {
	Request request("/");
	request.prepare("SELECT a FROM t WHERE id = ?", 2).execute(10).execute(20);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(1u, facts.statements.size());
	EXPECT_EQ("SELECT a FROM t WHERE id = ?", facts.statements[0].text);
	EXPECT_EQ(2, facts.statements[0].count);
	EXPECT_EQ(32, facts.statements[0].total);
	EXPECT_EQ(20, facts.statements[0].longest);
}

TEST(StatementFacts, CallerTellsWhichPreparedOneIsMeant) {
	Request request("/");
	request.open("A::load").prepare("SELECT a").open("B::load").prepare("SELECT b").execute(1);
	request.close().execute(2);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(2u, facts.statements.size());
	EXPECT_EQ("SELECT b", facts.statements[0].text);
	EXPECT_EQ("SELECT a", facts.statements[1].text);
	EXPECT_EQ(2, facts.statements[1].total);
}

TEST(StatementFacts, WrappersOfTheDriverAreNoObstacle) {
	Request request("/");
	request.open("Connection::prepare").prepare("SELECT a", 1).close();
	request.open("Statement::execute").execute(3).close();
	Facts facts = facts_of(request.done());
	ASSERT_EQ(1u, facts.statements.size());
	EXPECT_EQ("SELECT a", facts.statements[0].text);
	EXPECT_EQ("Statement::execute", facts.statements[0].caller);
	EXPECT_EQ(4, facts.statements[0].total);
}

TEST(StatementFacts, NobodyGuessesAmongSeveralPreparedOnes) {
	Request request("/");
	request.prepare("SELECT a", 1).prepare("SELECT b", 1).execute(3).execute(4);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(2u, facts.statements.size());
	EXPECT_EQ("(prepared statement)", facts.statements[0].text);
	EXPECT_EQ(2, facts.statements[0].count);
	EXPECT_EQ("SELECT a", facts.statements[1].text);
	EXPECT_EQ(0, facts.statements[1].count);
	EXPECT_EQ(1, facts.statements[1].total);
}

TEST(StatementFacts, NobodyGuessesAmongThoseOfOtherCallersEither) {
	Request request("/");
	request.open("Connection::prepare").prepare("SELECT a").close();
	request.open("Connection::prepare").prepare("SELECT b").close();
	request.open("Statement::execute").execute(3).close();
	Facts facts = facts_of(request.done());
	ASSERT_EQ(2u, facts.statements.size());
	EXPECT_EQ("(prepared statement)", facts.statements[0].text);
	EXPECT_EQ("SELECT a", facts.statements[1].text);
	EXPECT_EQ(0, facts.statements[1].count);
}

TEST(StatementFacts, CassandrasTextsAreExecutedLater) {
	Request request("/");
	request.query("SELECT a", 0, "Cassandra\\SimpleStatement::__construct", "Cassandra");
	request.cache("Cassandra\\DefaultSession::execute", 9, "Cassandra");
	Facts facts = facts_of(request.done());
	ASSERT_EQ(1u, facts.statements.size());
	EXPECT_EQ("SELECT a", facts.statements[0].text);
	EXPECT_EQ(1, facts.statements[0].count);
}

TEST(HostFacts, AreCountedByHost) {
	Request request("/");
	request.call("https://u:p@API.example:443/users/7?x=1", 20);
	request.call("https://api.example/users/8", 30, 503).call("https://api.example/", 5, 0);
	request.call("https://api.example:8443/", 1, 404);
	request.open("curl_multi_exec", "HTTP").transfer("http://b.example", 1).close();
	Facts facts = facts_of(request.done());
	ASSERT_EQ(3u, facts.hosts.size());
	EXPECT_EQ("api.example", facts.hosts[0].host);
	EXPECT_EQ(3, facts.hosts[0].count);
	EXPECT_EQ(55, facts.hosts[0].total);
	EXPECT_EQ(30, facts.hosts[0].longest);
	EXPECT_EQ(2, facts.hosts[0].failed);
	EXPECT_EQ("api.example:8443", facts.hosts[1].host);
	EXPECT_EQ(0, facts.hosts[1].failed);
	EXPECT_EQ("b.example", facts.hosts[2].host);
}

TEST(FailureFacts, UncaughtExceptionCountsOnce) {
	Request request("/");
	request.fails("ERROR",
				  "Uncaught DomainException: no 1 in /srv/shop/src/Cart.php:12\nStack trace:\n#0",
				  "Error");
	request.open("a").fails("DomainException", "no 1", "Warning").close();
	request.open("b").fails("ERROR", "Undefined variable $x", "Notice", "/srv/b.php", 3);
	request.fails("ERROR", "Undefined variable $x", "Warning", "/srv/b.php", 3);
	Facts facts = facts_of(request.done());
	ASSERT_EQ(2u, facts.failures.size());
	EXPECT_EQ("DomainException", facts.failures[0].type);
	EXPECT_EQ("no *", facts.failures[0].message);
	EXPECT_EQ(1, facts.failures[0].count);
	EXPECT_TRUE(facts.failures[0].is_serious);
	EXPECT_EQ("Error", facts.failures[0].level);
	EXPECT_EQ("/srv/b.php:3", facts.failures[1].place);
	EXPECT_EQ(2, facts.failures[1].count);
	EXPECT_EQ("Warning", facts.failures[1].level);
	EXPECT_FALSE(facts.failures[1].is_serious);
}

TEST(Facts, AreBounded) {
	Request request("/");
	for (size_t i = 0; i < kaq::kMostFacts + 10; i++) {
		std::string name(1, static_cast<char>('a' + i % 26));
		name += std::string(i / 26 + 1, 'x');
		request.query("SELECT " + name + std::string(5000, 'y'), 1);
		request.call("http://" + name + "/", 1);
		request.fails(name, "m", "Warning");
	}
	Facts facts = facts_of(request.done());
	ASSERT_EQ(kaq::kMostFacts + 1, facts.statements.size());
	EXPECT_EQ("(other)", facts.statements.back().text);
	EXPECT_EQ(10, facts.statements.back().count);
	EXPECT_EQ("", facts.statements.back().caller);
	EXPECT_EQ(kaq::kLongestFactText, facts.statements.front().text.size());
	ASSERT_EQ(kaq::kMostFacts + 1, facts.hosts.size());
	EXPECT_EQ("(other)", facts.hosts.back().host);
	EXPECT_EQ(10, facts.hosts.back().count);
	ASSERT_EQ(kaq::kMostFacts + 1, facts.failures.size());
	EXPECT_EQ("(other)", facts.failures.back().key);
	EXPECT_EQ(10, facts.failures.back().count);
}
