/*
 * Requests with a known cause. Each case says what its author built in: what the verdict has to
 * name, and how many milliseconds the request would have been faster without it.
 */
#pragma once

#include <string>
#include <vector>

#include "analysis/verdict.h"
#include "requests.h"

struct VerdictCase {
	std::string name;
	kaq::FindingKind kind;
	int64_t gain;
	std::string says; /* part of the sentence */
	kaq::Transaction request;
	kaq::FindingOptions options = {};
};

struct HealthyCase {
	std::string name;
	kaq::Transaction request;
	kaq::FindingOptions options = {};
};

std::vector<VerdictCase> statement_cases();
std::vector<VerdictCase> call_cases();
std::vector<VerdictCase> other_cases();
std::vector<HealthyCase> healthy_cases();

/* What such applications do before they come to the point. */

inline Request wordpress(std::string_view path) {
	Request request(path);
	request.works(6).open("require_wp_settings").works(14);
	request.cache("mysqli_real_connect", 1, "MySQLi").last().host = "db1";
	request.mysqli("SET NAMES ?", 0).mysqli("SELECT @@SESSION.sql_mode", 0);
	request.mysqli("SELECT option_name, option_value FROM wp_options WHERE autoload = ?", 3);
	request.runs("do_action", 11).close();
	request.mysqli("SELECT * FROM wp_users WHERE user_login = ? LIMIT ?", 1);
	return request;
}

inline Request mediawiki(std::string_view path) {
	Request request(path);
	request.works(5).open("wfSetup").works(18).cache("memcached::get", 1, "Memcached").close();
	request.open("MediaWiki::run").open("MediaWiki::main").works(4);
	request.cache("mysqli_real_connect", 1, "MySQLi").last().host = "p:db-wiki";
	request.mysqli("SELECT page_id, page_latest FROM page WHERE page_namespace = ?", 2);
	request.cache("memcached::get", 1, "Memcached");
	return request;
}

inline Request symfony(std::string_view path) {
	Request request(path);
	request.works(3).open("Kernel::boot").works(11).close();
	request.open("HttpKernel::handle").works(2);
	request.connect("mysql:host=db1;dbname=shop;charset=utf8mb4");
	request.prepare("SELECT t0.id, t0.email FROM user t0 WHERE t0.id = ?").execute(2);
	return request;
}

inline Request gateway(std::string_view path) {
	Request request(path);
	request.works(2).open("Router::dispatch").works(2).cache("redis::get", 1);
	return request;
}

inline Request worker(std::string_view script) {
	Request request(script, false);
	request.works(40).open("Worker::run").works(5);
	request.connect("pgsql:host=db2 dbname=jobs");
	request.query("SELECT version()", 1);
	return request;
}
