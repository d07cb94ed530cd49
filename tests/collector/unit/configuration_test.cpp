/* What a configuration file may say, and how its mistakes are told. */
#include "cli/configuration.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using kaq::Configuration;
using kaq::ConfigurationOrMistakes;

static ConfigurationOrMistakes read(const std::string &text) {
	return kaq::read_configuration(
		text, [](const std::string &path) -> tl::expected<std::string, std::string> {
			if (path == "/snippet") {
				return "<script></script>";
			}
			return tl::make_unexpected("cannot read " + path);
		});
}

/* The mistakes as they are told; "" if there is none. */
static std::string mistakes(const std::string &text) {
	ConfigurationOrMistakes configuration = read(text);
	return configuration ? "" : kaq::mistakes_text("f", configuration.error());
}

static const std::string kEverything = R"([listen]
addresses = ["127.0.0.1", "10.0.0.1", "fd00::1"]
handshake = 1
data = 2
http = 3
handshake_networks = ["10.0.0.0/8"]
data_networks = ["10.0.0.0/8", "fd00::/8"]
socket_group = "www"
[store]
directory = "/d"
size_cap = "4GiB"
age = "1d"
rollup_cap = "32MiB"
minutes_age = "2d"
hours_age = "3d"
partition_size = "64MiB"
partition_age = "30m"
[scrub]
keep_literals = true
secret_names = ["x-pin"]
[names]
cap = 10
[[names.rule]]
application = "a"
path = "/p*"
name = "n"
parameters = ["q"]
[overload]
lower_share = false
[crash_logs]
directories = ["/c", "/d"]
[[monitor]]
application = "a"
transaction = "/t"
share = 0.25
sql_stack_threshold = "3s"
snippet_file = "/snippet"
[[monitor]]
monitored = false
[[alert]]
application = "b"
transaction = "/u"
metric = "p95"
limit = "1.5s"
minutes = 7
webhook = "https://h/"
[[alert]]
metric = "error_share"
limit = "5%"
webhook = "http://h/"
[[alert]]
metric = "rate"
deviation = 2.5
webhook = "http://h/"
[[export.otlp]]
name = "main"
endpoint = "https://otel.example:4318"
headers = ["Authorization: Bearer 0123", "X-Scope:shop"]
ca_file = "/ca.pem"
timeout = "5s"
application = "c*"
transaction = "/v*"
slower = "250ms"
failed = true
share = "20%"
keep_literals = true
spans_per_second = 1000
signals = ["metrics", "traces"]
metrics_every = "10s"
[[export.otlp]]
name = "other-1_B"
endpoint = "http://127.0.0.1"
)";

TEST(Configuration, WithoutAFileTheDefaultsHold) {
	ConfigurationOrMistakes configuration = read("");
	ASSERT_TRUE(configuration);
	EXPECT_EQ(20021, configuration->listen.handshake_port);
	EXPECT_EQ(2ull << 30, configuration->store.size_cap);
	EXPECT_TRUE(configuration->monitor.empty());
	EXPECT_FALSE(configuration->scrub.keeps_literals);
}

TEST(Configuration, PlacesAndCapsAreRead) {
	ConfigurationOrMistakes configuration = read(kEverything);
	ASSERT_TRUE(configuration) << mistakes(kEverything);
	const kaq::ListenSettings &listen = configuration->listen;
	EXPECT_EQ(3u, listen.addresses.size());
	EXPECT_EQ(1, listen.handshake_port);
	EXPECT_EQ(2, listen.data_port);
	EXPECT_EQ(3, listen.http_port);
	ASSERT_EQ(1u, listen.handshake_networks.size());
	ASSERT_EQ(2u, listen.data_networks.size());
	EXPECT_EQ("fd00::/8", listen.data_networks[1].text());
	EXPECT_EQ("www", listen.socket_group);
	const kaq::StoreSettings &store = configuration->store;
	EXPECT_EQ("/d", store.directory);
	EXPECT_EQ(4ull << 30, store.size_cap);
	EXPECT_EQ(std::chrono::hours(24), store.age);
	EXPECT_EQ(32ull << 20, store.rollup_cap);
	EXPECT_EQ(std::chrono::hours(48), store.minutes_age);
	EXPECT_EQ(std::chrono::hours(72), store.hours_age);
	EXPECT_EQ(64ull << 20, store.partition_size);
	EXPECT_EQ(std::chrono::minutes(30), store.partition_age);
}

TEST(Configuration, RulesAreRead) {
	ConfigurationOrMistakes configuration = read(kEverything);
	ASSERT_TRUE(configuration) << mistakes(kEverything);
	EXPECT_TRUE(configuration->scrub.keeps_literals);
	EXPECT_EQ(std::vector<std::string>{"x-pin"}, configuration->scrub.secret_names);
	EXPECT_EQ(10u, configuration->names.cap);
	ASSERT_EQ(1u, configuration->names.rules.size());
	EXPECT_EQ("/p*", configuration->names.rules[0].path);
	EXPECT_EQ(std::vector<std::string>{"q"}, configuration->names.rules[0].parameters);
	EXPECT_FALSE(configuration->overload.lowers_share);
	EXPECT_EQ((std::vector<std::string>{"/c", "/d"}), configuration->crash_logs.directories);
	ASSERT_EQ(2u, configuration->monitor.size());
	const kaq::MonitorRule &first = configuration->monitor[0];
	EXPECT_EQ("a", first.application);
	EXPECT_EQ("/t", first.transaction);
	EXPECT_EQ(250000u, first.share);
	EXPECT_EQ(3, first.sql_stack_seconds);
	EXPECT_EQ("<script></script>", first.snippet);
	EXPECT_EQ(0u, configuration->monitor[1].share);
	ASSERT_EQ(3u, configuration->alerts.size());
	EXPECT_EQ(1500, configuration->alerts[0].limit);
	EXPECT_EQ(std::chrono::minutes(7), configuration->alerts[0].minutes);
	EXPECT_EQ(kaq::AlertMetric::kErrorShare, configuration->alerts[1].metric);
	EXPECT_DOUBLE_EQ(0.05, configuration->alerts[1].limit.value());
	EXPECT_EQ(2.5, configuration->alerts[2].deviation);
	EXPECT_FALSE(configuration->alerts[2].limit);
}

TEST(Configuration, DestinationsAreRead) {
	ConfigurationOrMistakes configuration = read(kEverything);
	ASSERT_TRUE(configuration) << mistakes(kEverything);
	ASSERT_EQ(2u, configuration->destinations.size());
	kaq::DestinationSettings first;
	first.name = "main";
	first.endpoint.url = "https://otel.example:4318";
	first.endpoint.headers = {"Authorization: Bearer 0123", "X-Scope:shop"};
	first.endpoint.ca_file = "/ca.pem";
	first.endpoint.time = std::chrono::seconds(5);
	first.application = "c*";
	first.transaction = "/v*";
	first.slower = std::chrono::milliseconds(250);
	first.is_failed = true;
	first.share = 0.2;
	first.traces.has_literals = true;
	first.spans_per_second = 1000;
	first.signals = {kaq::OtlpSignal::kTraces, kaq::OtlpSignal::kMetrics};
	first.metrics_time = std::chrono::seconds(10);
	EXPECT_TRUE(first == configuration->destinations[0]);
	kaq::DestinationSettings second;
	second.name = "other-1_B";
	second.endpoint.url = "http://127.0.0.1";
	EXPECT_TRUE(second == configuration->destinations[1]);
}

TEST(Configuration, PartitionsFitASmallCapUnlessTheirSizeIsSaid) {
	EXPECT_EQ(uint64_t{128} << 20, read("[store]\nsize_cap = \"256MiB\"")->store.partition_size);
	EXPECT_EQ(uint64_t{256} << 20, read("[store]\nsize_cap = \"1GiB\"")->store.partition_size);
	EXPECT_EQ(
		uint64_t{64} << 20,
		read("[store]\nsize_cap = \"256MiB\"\npartition_size = \"64MiB\"")->store.partition_size);
}

TEST(Configuration, WhatIsShownAsJsonIsTheSame) {
	ConfigurationOrMistakes configuration = read(kEverything);
	ASSERT_TRUE(configuration);
	nlohmann::json shown = nlohmann::json::parse(to_json_text(*configuration));
	EXPECT_EQ("4GiB", shown.at("store").at("size_cap"));
	EXPECT_EQ(0.25, shown.at("monitor").at(0).at("share"));
	EXPECT_EQ(false, shown.at("overload").at("lower_share"));
	EXPECT_EQ((std::vector<std::string>{"/c", "/d"}), shown.at("crash_logs").at("directories"));
}

TEST(Configuration, WhatIsShownReadsBackAsTheSame) {
	ConfigurationOrMistakes configuration = read(kEverything);
	ASSERT_TRUE(configuration);
	std::string shown = to_toml(*configuration);
	ConfigurationOrMistakes again = read(shown);
	ASSERT_TRUE(again) << mistakes(shown);
	EXPECT_EQ(shown, to_toml(*again));
	EXPECT_EQ(4ull << 30, again->store.size_cap);
	EXPECT_EQ(250000u, again->monitor[0].share);
	EXPECT_EQ("<script></script>", again->monitor[0].snippet);
	EXPECT_EQ(1500, again->alerts[0].limit);
	EXPECT_EQ(2u, again->crash_logs.directories.size());
	EXPECT_TRUE(configuration->destinations == again->destinations);
}

TEST(Configuration, AllMistakesAreToldWithTheirLines) {
	EXPECT_EQ(
		"f:2: listen.handshake: has to be a whole number from 0 to 65535\n"
		"f:3: listen.http_prt: there is no such setting\n"
		"f:5: store.agee: there is no such setting; did you mean \"age\"?\n"
		"f:6: store.size_cap: has to be a size from \"16MiB\" to \"1024TiB\", with its unit\n",
		mistakes("[listen]\nhandshake = 70000\nhttp_prt = 5\n[store]\nagee = \"1d\"\n"
				 "size_cap = 5\n"));
}

struct Mistake {
	const char *text;
	const char *told;
};

static void PrintTo(const Mistake &mistake, std::ostream *stream) {
	*stream << mistake.text;
}

class Mistakes : public testing::TestWithParam<Mistake> {};

TEST_P(Mistakes, IsTold) {
	EXPECT_EQ(GetParam().told, mistakes(GetParam().text)) << GetParam().text;
}

/* table */
INSTANTIATE_TEST_SUITE_P(
	Each, Mistakes,
	testing::Values(
		Mistake{"[lisen]", "f:1: lisen: there is no such setting; did you mean \"listen\"?\n"},
		Mistake{"listen = 1", "f:1: listen: has to be a section, [listen]\n"},
		Mistake{"[monitor]", "f:1: monitor: has to be a list of at most 1000 sections, "
							 "[[monitor]]\n"},
		Mistake{"[listen]\naddresses = [1]",
				"f:2: listen.addresses: has to be a list of texts, such as [\"one\", \"two\"]\n"},
		Mistake{"[listen]\naddresses = []",
				"f:2: listen.addresses: has to name 1 to 16 addresses\n"},
		Mistake{"[listen]\naddresses = [\"localhost\"]",
				"f:2: listen.addresses: \"localhost\" is no IP address\n"},
		Mistake{"[listen]\naddresses = [\"0.0.0.0\"]",
				"f:2: listen.addresses: others can reach 0.0.0.0: handshake_networks and "
				"data_networks have to say who may\n"},
		Mistake{"[listen]\ndata_networks = [\"10.0.0.0/33\"]",
				"f:2: listen.data_networks: \"10.0.0.0/33\" is no network such as "
				"\"10.0.0.0/8\"\n"},
		Mistake{"[listen]\ndata = 20021", "f:2: listen.data: is the port of the handshakes\n"},
		Mistake{"[listen]\nhttp = 20022", "f:2: listen.http: is the port of something else\n"},
		Mistake{"[crash_logs]\ndirectories = [\"/a\", \"b\"]",
				"f:2: crash_logs.directories: has to be at most 64 paths that begin with \"/\"\n"},
		Mistake{"[store]\ndirectory = \"data\"",
				"f:2: store.directory: has to be a path that begins with \"/\"\n"},
		Mistake{"[store]\nage = \"10m\"",
				"f:2: store.age: has to be a time from \"1h\" to \"3650d\", with its unit\n"},
		Mistake{"[store]\npartition_size = \"2GiB\"",
				"f:2: store.partition_size: has to be at most half of size_cap: whole partitions "
				"are removed\n"},
		Mistake{"[scrub]\nkeep_literals = 1", "f:2: scrub.keep_literals: has to be true or "
											  "false\n"},
		Mistake{"[scrub]\nsecret_names = [\"\"]",
				"f:2: scrub.secret_names: has to be at most 1000 names, none of them empty\n"},
		Mistake{"[names]\ncap = 0", "f:2: names.cap: has to be a whole number from 1 to 100000\n"},
		Mistake{"[[names.rule]]\nname = \"n\"",
				"f:1: names.rule.path: has to be given, such as \"/shop/*\"\n"},
		Mistake{"[[names.rule]]\npath = \"/\"\nname = \"a\\u0007b\"",
				"f:3: names.rule.name: has control characters\n"},
		Mistake{"[[names.rule]]\npath = \"/\"", "f:1: names.rule: needs a name, or parameters\n"},
		Mistake{"[[monitor]]\nshare = 1.5",
				"f:2: monitor.share: has to be a number from 0 to 1, or a text such as \"10%\"\n"},
		Mistake{"[[monitor]]\nshare = nan",
				"f:2: monitor.share: has to be a number from 0 to 1, or a text such as \"10%\"\n"},
		Mistake{"[[monitor]]\nshare = 1\nmonitored = true",
				"f:2: monitor.share: cannot stand beside monitored\n"},
		Mistake{"[[monitor]]\nsql_stack_threshold = \"1.5s\"",
				"f:2: monitor.sql_stack_threshold: has to be whole seconds\n"},
		Mistake{"[[monitor]]\nsnippet_file = \"/none\"",
				"f:2: monitor.snippet_file: cannot read /none\n"},
		Mistake{"[[monitor]]\nsnippet_file = \"none\"",
				"f:2: monitor.snippet_file: has to be a path that begins with \"/\"\n"},
		Mistake{"[[monitor]]\nsnippet = 1", "f:2: monitor.snippet: has to be a text in quotes\n"},
		Mistake{"[[monitor]]\nsnippet = \"a\"\nsnippet_file = \"/snippet\"",
				"f:3: monitor.snippet_file: cannot stand beside snippet\n"},
		Mistake{"[[alert]]\nmetric = \"p95\"\nwebhook = \"http://h/\"",
				"f:1: alert: needs a limit or a deviation, and not both\n"},
		Mistake{"[[alert]]\nmetric = \"rate\"\nlimit = 1\ndeviation = 2\nwebhook = \"http://h/\"",
				"f:1: alert: needs a limit or a deviation, and not both\n"},
		Mistake{"[[alert]]\nmetric = \"p99\"\nlimit = 1\nwebhook = \"http://h/\"",
				"f:2: alert.metric: has to be \"p95\", \"error_share\" or \"rate\"\n"},
		Mistake{"[[alert]]\nmetric = \"rate\"\nlimit = 1\nwebhook = \"file:///a\"",
				"f:4: alert.webhook: has to be a URL that begins with http:// or https://\n"},
		Mistake{"[[alert]]\nmetric = \"rate\"\nlimit = 1\nwebhook = \"http://h/\"\nminutes = 0",
				"f:5: alert.minutes: has to be a whole number from 1 to 1440\n"},
		Mistake{"[export]\notlp = 1",
				"f:2: export.otlp: has to be a list of at most 16 sections, [[export.otlp]]\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"",
				"f:1: export.otlp.endpoint: has to be a URL that begins with http:// or "
				"https://\n"},
		Mistake{"[[export.otlp]]\nname = \"a/b\"\nendpoint = \"http://h\"",
				"f:2: export.otlp.name: has to be 1 to 64 letters, digits, \"-\" or \"_\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\n"
				"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"",
				"f:5: export.otlp.name: is that of another destination\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\n"
				"headers = [\"secret\"]",
				"f:4: export.otlp.headers: has to be at most 64 texts such as \"Authorization: "
				"Bearer 0123\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\n"
				"headers = [\"A: b\\nC: d\"]",
				"f:4: export.otlp.headers: has to be at most 64 texts such as \"Authorization: "
				"Bearer 0123\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\nca_file = \"ca\"",
				"f:4: export.otlp.ca_file: has to be a path that begins with \"/\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\nshar = 1",
				"f:4: export.otlp.shar: there is no such setting; did you mean \"share\"?\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\n"
				"spans_per_second = 0",
				"f:4: export.otlp.spans_per_second: has to be a whole number from 1 to "
				"10000000\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\nsignals = [\"trace\"]",
				"f:4: export.otlp.signals: has to be some of \"traces\", \"logs\" and "
				"\"metrics\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h\"\nsignals = []",
				"f:4: export.otlp.signals: has to be some of \"traces\", \"logs\" and "
				"\"metrics\"\n"},
		Mistake{"[[export.otlp]]\nname = \"a\"\nendpoint = \"http://h/in\"\n"
				"signals = [\"traces\", \"logs\"]",
				"f:3: export.otlp.endpoint: has to be without a path, or to end in /v1/traces, "
				"where more than one signal is sent\n"}));

TEST(Configuration, TomlThatCannotBeReadIsToldWithItsLine) {
	EXPECT_EQ(0u, mistakes("[listen]\nhandshake = \n").rfind("f:2: ", 0));
	EXPECT_EQ(0u, mistakes("[a]\n[a]\n").rfind("f:2: ", 0));
}

TEST(Configuration, WhatIsTooLongIsRefused) {
	EXPECT_EQ("f: the file is too long\n", mistakes(std::string((1 << 20) + 1, '\n')));
	EXPECT_EQ("f:2: the line has more than 4096 bytes\n",
			  mistakes("\n# " + std::string(4095, 'x') + "\n"));
	std::string deep = "a";
	while (deep.size() < 4000) {
		deep += ".a";
	}
	EXPECT_EQ("f:1: a: there is no such setting\n", mistakes(deep + " = 1"));
	std::string snippet = "[[monitor]]\nsnippet = '''\n";
	for (int i = 0; i < 5; i++) {
		snippet += std::string(4000, 'x') + "\n";
	}
	EXPECT_EQ("f:2: monitor.snippet: has more than 16384 bytes\n", mistakes(snippet + "'''\n"));
}

TEST(Configuration, KeysOfMistakesCannotHarmATerminal) {
	EXPECT_EQ("f:1: a?b: there is no such setting\n", mistakes("\"a\\u001bb\" = 1"));
}

TEST(Configuration, AFileThatIsNamedHasToBeThere) {
	ConfigurationOrMistakes configuration = kaq::load_configuration("/nonexistent/file");
	ASSERT_FALSE(configuration);
	EXPECT_EQ("cannot read /nonexistent/file", configuration.error().at(0).text);
}
