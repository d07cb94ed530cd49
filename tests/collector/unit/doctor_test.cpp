/* The checks, on systems that the test makes up. */
#include "cli/doctor.h"

#include <gtest/gtest.h>

#include <fstream>

#include "cli/doctor_private.h"
#include "records.h"

namespace {

using kaq::CheckResult;
using kaq::CheckResults;
using kaq::Health;
using kaq::PhpInstallation;

class DoctorTest : public testing::Test {
protected:
	DoctorTest() {
		context_.root = directory_.path();
		context_.store = directory_.path();
		context_.configuration = kaq::Configuration();
		context_.status = {{"collector", {{"process", 77}}}, {"store", nlohmann::json::object()}};
		context_.is_running = true;
		context_.address = "127.0.0.1";
		context_.handshake_port = 20021;
		context_.data_port = 20022;
	}

	void write(const std::string &path, const std::string &text) {
		std::filesystem::path file = directory_.path() + path;
		std::filesystem::create_directories(file.parent_path());
		std::ofstream(file) << text;
	}

	void write_program(const std::string &path, const std::string &text) {
		write(path, "#!/bin/sh\n" + text);
		std::filesystem::permissions(directory_.path() + path, std::filesystem::perms(0755));
	}

	/* With the extension and its usual settings, but for these. */
	PhpInstallation php(std::map<std::string, std::string> values = {}) {
		PhpInstallation php;
		php.name = "/usr/bin/php";
		php.values = std::move(values);
		for (const auto &[name, value] :
			 std::map<std::string, std::string>{{"PHP Version", "8.2.1"},
												{"kaq.version", "4.9"},
												{"kaq.version_info", "4.9.2.0"},
												{"kaq.status_port", "20021"},
												{"kaq.data_port", "20022"},
												{"kaq.track_zend_execute", "1"},
												{"kaq.span_limit", "10000"},
												{"kaq.application_name", "Shop"}}) {
			php.values.try_emplace(name, value);
		}
		return php;
	}

	CheckResults look_at(PhpInstallation installation) {
		context_.installations = {std::move(installation)};
		return check_php(context_);
	}

	/* Whether one of them has that health and these words. */
	static bool says(const CheckResults &results, Health health, const std::string &words) {
		for (const CheckResult &each : results) {
			if (each.health == health && each.what.find(words) != std::string::npos) {
				return true;
			}
		}
		return false;
	}

	static bool is_fine(const CheckResults &results) {
		for (const CheckResult &each : results) {
			if (each.health != Health::kOk) {
				return false;
			}
		}
		return !results.empty();
	}

	kaq_test::Directory directory_;
	kaq::DoctorContext context_;
};

TEST_F(DoctorTest, EachCheckSaysSomething) {
	context_.is_running = false;
	context_.status = nlohmann::json::object();
	for (const kaq::Check &check : kaq::checks()) {
		EXPECT_FALSE(check.run(context_).empty()) << check.subject;
	}
}

TEST_F(DoctorTest, PhpInfoIsReadAsTextAndAsAPage) {
	auto text =
		kaq::read_phpinfo("phpinfo()\nPHP Version => 8.2.36\n\nkaq.data_port => 7 => 20022\n"
						  "empty => no value => no value\n");
	EXPECT_EQ(text["PHP Version"], "8.2.36");
	EXPECT_EQ(text["kaq.data_port"], "7");
	auto page = kaq::read_phpinfo(
		"<tr><td class=\"e\">PHP Version </td><td class=\"v\">8.2.36 </td></tr>\n"
		"<tr><td class=\"e\">kaq.data_port</td><td class=\"v\">7</td><td "
		"class=\"v\">20022</td></tr>\n"
		"<tr><td class=\"e\">a</td><td class=\"v\"><i>no value</i></td><td>x</td></tr>\n"
		"<tr><td class=\"e\">b</td><td class=\"v\">&lt;&amp;&#039;</td></tr>\n");
	EXPECT_EQ(page["PHP Version"], "8.2.36");
	EXPECT_EQ(page["kaq.data_port"], "7");
	EXPECT_EQ(page["a"], "no value");
	EXPECT_EQ(page["b"], "<&'");
}

TEST_F(DoctorTest, EachPhpIsAskedOnce) {
	write_program("/usr/bin/php8.2", "echo 'PHP Version => 8.2.1'; echo \"asked => $1\"\n");
	write_program("/opt/x/bin/php", "echo 'PHP Version => 7.4.1'; echo 'kaq.version => 4.9'\n");
	write_program("/usr/sbin/php-fpm7.0", "echo broken; exit 3\n");
	write_program("/usr/bin/phpize", "echo 'PHP Version => 1'\n");
	std::filesystem::create_symlink("php8.2", directory_.path() + "/usr/bin/php");
	std::vector<PhpInstallation> found = kaq::find_php(directory_.path(), false);
	ASSERT_EQ(found.size(), 3u);
	EXPECT_EQ(found[0].name, directory_.path() + "/usr/bin/php8.2");
	EXPECT_EQ(found[0].value("asked"), "-i");
	EXPECT_FALSE(found[0].has_extension());
	EXPECT_NE(found[1].mistake.find("status 3"), std::string::npos);
	EXPECT_TRUE(found[2].has_extension());
}

TEST_F(DoctorTest, TheSuperuserRunsNothingThatOthersMayChange) {
	std::string mark = directory_.path() + "/mark";
	write_program("/usr/bin/php", "touch " + mark + "\n");
	std::filesystem::permissions(directory_.path() + "/usr/bin/php", std::filesystem::perms(0777));
	std::vector<PhpInstallation> found = kaq::find_php(directory_.path(), true);
	ASSERT_EQ(found.size(), 1u);
	EXPECT_NE(found[0].mistake.find("not run as root"), std::string::npos);
	EXPECT_FALSE(std::filesystem::exists(mark));
}

TEST_F(DoctorTest, ApachesFilesAreReadByTheProgramOfTheirVersion) {
	write_program("/usr/bin/php8.2", "echo 'PHP Version => 8.2.1'; echo \"x => $1 $2 $3\"; "
									 "echo \"dir => $PHP_INI_SCAN_DIR\"\n");
	write("/etc/php/8.2/apache2/php.ini", "");
	std::vector<PhpInstallation> found = kaq::find_php(directory_.path(), false);
	ASSERT_EQ(found.size(), 2u);
	std::string directory = directory_.path() + "/etc/php/8.2/apache2";
	EXPECT_EQ(found[1].value("x"), "-c " + directory + "/php.ini -i");
	EXPECT_EQ(found[1].value("dir"), directory + "/conf.d");
}

TEST_F(DoctorTest, APhpThatIsAsItShouldBeIsFine) {
	CheckResults results = look_at(php());
	EXPECT_TRUE(is_fine(results));
	EXPECT_TRUE(says(results, Health::kOk, "4.9.2.0"));
}

TEST_F(DoctorTest, OtherPortsThanTheCollectorsAreAProblem) {
	EXPECT_TRUE(
		says(look_at(php({{"kaq.status_port", "1"}})), Health::kProblem, "kaq.status_port is 1"));
	EXPECT_TRUE(says(look_at(php({{"kaq.data_port", "20021"}})), Health::kProblem,
					 "kaq.data_port are the same"));
	CheckResults elsewhere =
		look_at(php({{"kaq.remote_exporter_ip", "10.0.0.1"}, {"kaq.data_port", "1"}}));
	EXPECT_TRUE(says(elsewhere, Health::kUnknown, "10.0.0.1"));
	EXPECT_FALSE(says(elsewhere, Health::kProblem, ""));
}

TEST_F(DoctorTest, SettingsThatContradictEachOtherAreNamed) {
	EXPECT_TRUE(says(look_at(php({{"kaq.remote_exporter_ip", "127.0.0.1"},
								  {"kaq.remote_exporter_hostname", "localhost"}})),
					 Health::kWarning, "does not count"));
	EXPECT_TRUE(says(look_at(php({{"kaq.remote_exporter_hostname", "localhost"}})),
					 Health::kWarning, "looked up twice"));
	EXPECT_TRUE(says(look_at(php({{"kaq.include_ports", "80"}, {"kaq.exclude_ports", "81"}})),
					 Health::kWarning, "does not count"));
	EXPECT_TRUE(says(look_at(php({{"kaq.exclude_ports", "80, 81"}})), Health::kWarning, "blanks"));
	EXPECT_TRUE(says(look_at(php({{"kaq.method_threshold", "10ms"}})), Health::kWarning, "10ms"));
	EXPECT_TRUE(says(look_at(php({{"kaq.span_limit", "0"}})), Health::kWarning, "span_limit"));
}

TEST_F(DoctorTest, TheJitAndRecordedFunctionsExcludeEachOther) {
	std::map<std::string, std::string> jit = {
		{"opcache.enable", "On"}, {"opcache.jit", "tracing"}, {"opcache.jit_buffer_size", "64M"}};
	EXPECT_TRUE(says(look_at(php(jit)), Health::kWarning, "opcache.jit is tracing"));
	jit["kaq.track_zend_execute"] = "0";
	EXPECT_TRUE(is_fine(look_at(php(jit))));
	jit["kaq.track_zend_execute"] = "2";
	EXPECT_TRUE(says(look_at(php(jit)), Health::kWarning, "opcache.jit is tracing"));
	for (const char *version : {"8.4.1", "9.0.0"}) {
		jit["PHP Version"] = version;
		EXPECT_TRUE(is_fine(look_at(php(jit)))) << version;
	}
	jit["kaq.track_zend_execute"] = "1";
	jit["opcache.jit_buffer_size"] = "0";
	EXPECT_TRUE(is_fine(look_at(php(jit))));
}

TEST_F(DoctorTest, WithoutTheExtensionNothingIsRecorded) {
	PhpInstallation plain;
	plain.name = "/usr/bin/php";
	plain.values = {{"PHP Version", "8.2.1"}};
	CheckResults results = look_at(plain);
	EXPECT_TRUE(says(results, Health::kWarning, "has not loaded the extension"));
	EXPECT_TRUE(says(results, Health::kProblem, "no PHP"));
	context_.installations = {plain, php()};
	EXPECT_FALSE(says(check_php(context_), Health::kProblem, ""));
}

TEST_F(DoctorTest, WhoHoldsAPortIsNamed) {
	write(
		"/proc/net/tcp",
		"  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt uid timeout "
		"inode\n"
		"   0: 0100007F:4E35 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 4242 1\n"
		"   1: 0100007F:4E36 0100007F:1234 01 00000000:00000000 00:00000000 00000000 0 0 4243 1\n");
	write("/proc/77/comm", "kaq\n");
	std::filesystem::create_directories(directory_.path() + "/proc/77/fd");
	std::filesystem::create_symlink("socket:[4242]", directory_.path() + "/proc/77/fd/5");
	CheckResults results = check_ports(context_);
	EXPECT_TRUE(
		says(results, Health::kOk, "handshake port 20021 on 127.0.0.1 is held by process 77"));
	EXPECT_TRUE(says(results, Health::kUnknown, "data port 20022: nobody listens"));
	context_.status["collector"]["process"] = 78;
	EXPECT_TRUE(says(check_ports(context_), Health::kProblem, "process 77 (kaq)"));
	std::filesystem::remove_all(directory_.path() + "/proc/77");
	EXPECT_TRUE(says(check_ports(context_), Health::kUnknown, "cannot be seen"));
	context_.is_running = false;
	EXPECT_TRUE(says(check_ports(context_), Health::kProblem, "nobody listens"));
}

TEST_F(DoctorTest, TheKeyOfAPoolComesTooLate) {
	EXPECT_TRUE(is_fine(check_account_key(context_)));
	write("/etc/php/8.2/fpm/pool.d/www.conf", "[www]\n;env[KAQ_ACCOUNT_KEY] = a\nclear_env = no\n");
	EXPECT_TRUE(is_fine(check_account_key(context_)));
	write("/etc/php/8.2/fpm/pool.d/shop.conf", "[shop]\nenv[KAQ_ACCOUNT_KEY] = abcdefghijklm\n");
	CheckResults results = check_account_key(context_);
	EXPECT_TRUE(says(results, Health::kProblem, "shop.conf sets env[KAQ_ACCOUNT_KEY]"));
	EXPECT_FALSE(says(results, Health::kProblem, "abcdefghijklm"));
}

TEST_F(DoctorTest, AShortKeyIsNone) {
	write("/opt/kaq/conf/account_key", "  short  \nmore and more and more\n");
	EXPECT_TRUE(says(check_account_key(context_), Health::kProblem, "fewer than 12"));
	write("/opt/kaq/conf/account_key", " 123456789012\n");
	EXPECT_TRUE(is_fine(check_account_key(context_)));
}

TEST_F(DoctorTest, ServicesThatPassTracesOnWantAKey) {
	context_.installations = {php({{"kaq.capture_distributed_trace", "1"}})};
	EXPECT_TRUE(says(check_account_key(context_), Health::kWarning, "capture_distributed_trace"));
}

TEST_F(DoctorTest, TheSmallestStackOfAProgramCounts) {
	auto limits = [](const std::string &value) {
		return "Limit                     Soft Limit           Hard Limit           Units     \n"
			   "Max stack size            " +
			   value + "              unlimited            bytes     \n";
	};
	write("/proc/10/comm", "php-fpm8.2\n");
	write("/proc/10/limits", limits("8388608"));
	write("/proc/12/comm", "bash\n");
	write("/proc/12/limits", limits("1000"));
	EXPECT_TRUE(is_fine(check_stacks(context_)));
	EXPECT_TRUE(says(check_stacks(context_), Health::kOk, "47 000 levels"));
	write("/proc/11/comm", "php-fpm8.2\n");
	write("/proc/11/limits", limits("1048576"));
	EXPECT_TRUE(says(check_stacks(context_), Health::kWarning, "5 875 levels"));
	write("/proc/13/comm", "apache2\n");
	EXPECT_TRUE(says(check_stacks(context_), Health::kUnknown, "limits"));
}

TEST_F(DoctorTest, CrashesAreToldWithTheirPlace) {
	EXPECT_TRUE(says(check_crashes(context_), Health::kWarning, "is not there"));
	std::string begin = "KAQ CRASH Signal 11 received\nKAQ CRASH address = 30\n"
						"Trace /x/kaq.so(+0x1) [0x10]\nTrace /x/libc.so.6(+0x2) [0x20]\n";
	write("/opt/kaq/logs/crash/kaqcrash-7.log", begin + "Trace php(x+0x1) [0x30]\n");
	auto settled = std::filesystem::file_time_type::clock::now() - std::chrono::seconds(5);
	std::filesystem::last_write_time(directory_.path() + "/opt/kaq/logs/crash/kaqcrash-7.log",
									 settled);
	EXPECT_TRUE(says(check_crashes(context_), Health::kWarning, "0 of them in the extension"));
	write("/opt/kaq/logs/crash/kaqcrash-8.log", begin + "Trace /x/kaq.so(+0x9) [0x30]\n");
	std::filesystem::last_write_time(directory_.path() + "/opt/kaq/logs/crash/kaqcrash-8.log",
									 settled + std::chrono::seconds(1));
	CheckResults results = check_crashes(context_);
	EXPECT_TRUE(says(results, Health::kProblem, "2 crashes in the last 24 hours, 1 of them"));
	EXPECT_TRUE(says(results, Health::kProblem, "process 8, signal 11: kaq.so(+0x9)"));
}

TEST_F(DoctorTest, WhatWasStoppedIsAProblem) {
	EXPECT_TRUE(is_fine(check_suspensions(context_)));
	context_.status["collector"]["suspended"] = {
		{{"application", "shop"}, {"instance", "i1"}, {"since_ms", 1}, {"reason", "3 crashes"}}};
	CheckResults results = check_suspensions(context_);
	EXPECT_TRUE(says(results, Health::kProblem, "shop is not monitored"));
	EXPECT_NE(results.at(0).advice.find("kaq resume shop"), std::string::npos);
}

TEST_F(DoctorTest, NamesThatHidePagesAreToldWithARule) {
	EXPECT_TRUE(is_fine(check_names(context_)));
	context_.status["collector"]["hidden_pages"] = {{{"application", "shop"},
													 {"transaction", "/index.php"},
													 {"parameter", "module"},
													 {"pages", 12},
													 {"requests", 99},
													 {"advice", "put [[names.rule]]"}}};
	CheckResults results = check_names(context_);
	EXPECT_TRUE(says(results, Health::kWarning, "/index.php of shop is 12 pages and more"));
	EXPECT_EQ(results.at(0).advice, "put [[names.rule]]");
	context_.is_running = false;
	context_.status = nlohmann::json::object();
	EXPECT_TRUE(says(check_names(context_), Health::kUnknown, ""));
}

TEST_F(DoctorTest, ASlowClockIsNamed) {
	const char *file = "/sys/devices/system/clocksource/clocksource0/current_clocksource";
	EXPECT_TRUE(says(check_clock(context_), Health::kUnknown, ""));
	write(file, "tsc\n");
	EXPECT_TRUE(is_fine(check_clock(context_)));
	write(file, "hpet\n");
	EXPECT_TRUE(says(check_clock(context_), Health::kWarning, "hpet"));
}

TEST_F(DoctorTest, TheDiskHasToHoldWhatMayCome) {
	context_.status["store"] = {{"bytes", 100}, {"most_bytes", 200}};
	EXPECT_TRUE(is_fine(check_disk(context_)));
	context_.status["store"] = {{"bytes", 100}, {"most_bytes", int64_t{1} << 60}};
	EXPECT_TRUE(says(check_disk(context_), Health::kWarning, ""));
	context_.store += "/none";
	EXPECT_TRUE(says(check_disk(context_), Health::kProblem, "/none"));
}

TEST_F(DoctorTest, LossesAreToldOneByOne) {
	EXPECT_TRUE(is_fine(check_losses(context_)));
	context_.status["collector"]["counters"] = {{"payloads were dropped", 7}};
	context_.status["store"] = {{"requests_lost", 3},
								{"writing", false},
								{"damages", {"requests-1.sqlite: not a database"}}};
	CheckResults results = check_losses(context_);
	EXPECT_TRUE(says(results, Health::kWarning, "7 payloads were dropped"));
	EXPECT_TRUE(says(results, Health::kWarning, "3 requests could not be written"));
	EXPECT_TRUE(says(results, Health::kProblem, "cannot be written to"));
	EXPECT_TRUE(says(results, Health::kWarning, "not a database"));
}

TEST_F(DoctorTest, MistakesOfTheConfigurationAreProblems) {
	context_.configuration_file = "/x.toml";
	EXPECT_TRUE(is_fine(check_configuration(context_)));
	context_.configuration =
		tl::make_unexpected(kaq::ConfigurationMistakes{{3, "is wrong"}, {4, "is wrong too"}});
	CheckResults results = check_configuration(context_);
	EXPECT_EQ(results.size(), 2u);
	EXPECT_TRUE(says(results, Health::kProblem, "/x.toml:3: is wrong"));
}

TEST_F(DoctorTest, APortThatNobodyAnswersIsAProblem) {
	context_.handshake_port = 1;
	context_.data_port = 1;
	EXPECT_TRUE(says(check_handshake(context_), Health::kProblem, "not answered"));
	EXPECT_TRUE(says(check_payload(context_), Health::kProblem, "cannot be sent"));
	context_.is_running = false;
	EXPECT_TRUE(says(check_payload(context_), Health::kUnknown, ""));
	EXPECT_TRUE(says(check_collector(context_), Health::kProblem, "does not run"));
}

} // namespace
