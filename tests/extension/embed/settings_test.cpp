/* The 30 settings: registration, handlers and fields. */
// table
#include "engine.h"

#include <stdlib.h>
#include <string.h>

#include "core/settings.h"

struct Setting {
	const char *name;
	const char *initial;
	int zend_kaq_globals::*number; /* one of the two */
	char *zend_kaq_globals::*text;
};

#define NUMBER(name, initial, field) \
	{ "kaq." name, initial, &zend_kaq_globals::field, nullptr }
#define TEXT(name, initial, field) \
	{ "kaq." name, initial, nullptr, &zend_kaq_globals::field }

static const Setting settings[] = {
	NUMBER("status_port", "20021", tcp_status_port),
	NUMBER("data_port", "20022", tcp_data_port),
	NUMBER("method_threshold", "10", method_threshold),
	NUMBER("capture_clirequest", "1", capture_clirequest),
	TEXT("application_name", "PHP-Application", applicationname),
	NUMBER("stack_depth", "15", max_stack_depth),
	NUMBER("capture_cassandra", "1", capture_cassandra),
	NUMBER("capture_http", "1", capture_http),
	NUMBER("capture_httpcall_metadata", "1", capture_httpcall_metadata),
	NUMBER("capture_mssql", "1", capture_mssql),
	NUMBER("capture_mysql", "1", capture_mysql),
	NUMBER("capture_oracle", "1", capture_oracle),
	NUMBER("capture_pdo", "1", capture_pdo),
	NUMBER("capture_postgres", "1", capture_postgres),
	NUMBER("capture_redis", "1", capture_redis),
	NUMBER("capture_memcached", "1", capture_memcached),
	NUMBER("capture_distributed_trace", "0", capture_distributed_trace),
	NUMBER("enable_auto_rum", "1", enable_auto_rum),
	TEXT("remote_exporter_hostname", "", remoteexporterhostname),
	TEXT("remote_exporter_ip", "", remoteexporterip),
	NUMBER("track_errors", "1", track_errors),
	NUMBER("track_exceptions", "1", track_exceptions),
	NUMBER("track_zend_execute", "1", track_zend_execute),
	NUMBER("track_zend_execute_internal", "1", track_zend_execute_internal),
	TEXT("application_group", "", applicationgroup),
	NUMBER("span_limit", "10000", span_limit),
	NUMBER("prune_intermediate_spans", "0", prune_intermediate_spans),
	TEXT("exclude_ports", "", excludedports),
	TEXT("include_ports", "", includedports),
	TEXT("use_static_port", "", use_static_port)};

static zend_ini_entry *entry_of(const char *name) {
	return (zend_ini_entry *)zend_hash_str_find_ptr(EG(ini_directives), name, strlen(name));
}

class Settings : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
	}

	/* An empty php.ini value never comes back by itself. */
	void TearDown() override {
		EngineTest::TearDown();
		for (const Setting &setting : settings) {
			if (setting.text && !setting.initial[0]) {
				free(g->*setting.text);
				g->*setting.text = nullptr;
			}
		}
	}

	/* What a script's ini_set does. */
	static bool set(const char *name, const std::string &value) {
		zend_string *key = zend_string_init(name, strlen(name), 0);
		bool done = zend_alter_ini_entry_chars(key, value.data(), value.size(), PHP_INI_USER,
											   PHP_INI_STAGE_RUNTIME) == SUCCESS;
		zend_string_release(key);
		return done;
	}

	static void restore(const char *name) {
		zend_string *key = zend_string_init(name, strlen(name), 0);
		zend_restore_ini_entry(key, PHP_INI_STAGE_RUNTIME);
		zend_string_release(key);
	}

	std::string text_of(const Setting &setting) const {
		const char *text = g->*setting.text;
		return text ? text : "(null)";
	}

	std::string name_and_number(const Setting &setting) const {
		return std::string(setting.name) + "=" + std::to_string(g->*setting.number);
	}

	/* Calls `check` for each integer setting, and puts the field back. */
	template <typename Check> void for_each_number(Check check) {
		for (const Setting &setting : settings) {
			if (setting.number) {
				int before = g->*setting.number;
				check(setting);
				restore(setting.name);
				g->*setting.number = before;
			}
		}
	}
};

TEST_F(Settings, ThereAreThirty) {
	EXPECT_EQ(30u, sizeof(settings) / sizeof(settings[0]));
}

TEST_F(Settings, RegisteredInTheOrderOfTheTableAndNoOthers) {
	std::vector<std::string> expected;
	std::vector<std::string> found;
	for (const Setting &setting : settings) {
		expected.push_back(setting.name);
	}
	zend_string *name;
	ZEND_HASH_FOREACH_STR_KEY(EG(ini_directives), name) {
		if (name && strncmp(ZSTR_VAL(name), "kaq.", 4) == 0) {
			found.push_back(ZSTR_VAL(name));
		}
	}
	ZEND_HASH_FOREACH_END();
	EXPECT_EQ(expected, found);
}

TEST_F(Settings, EachIsChangeableEverywhereAndHasAHandlerAndNoDisplay) {
	for (const Setting &setting : settings) {
		const zend_ini_entry *entry = entry_of(setting.name);
		ASSERT_NE(nullptr, entry) << setting.name;
		EXPECT_EQ(7, entry->modifiable) << setting.name;
		EXPECT_NE(nullptr, entry->on_modify) << setting.name;
		EXPECT_EQ(nullptr, entry->displayer) << setting.name;
		EXPECT_EQ(nullptr, entry->mh_arg1) << setting.name;
		EXPECT_EQ(nullptr, entry->mh_arg2) << setting.name;
		EXPECT_EQ(nullptr, entry->mh_arg3) << setting.name;
	}
}

TEST_F(Settings, EachHasAHandlerOfItsOwn) {
	for (const Setting &one : settings) {
		for (const Setting &other : settings) {
			if (&one != &other) {
				EXPECT_NE(entry_of(one.name)->on_modify, entry_of(other.name)->on_modify)
					<< one.name << " " << other.name;
			}
		}
	}
}

TEST_F(Settings, DefaultsAreTheTablesTexts) {
	for (const Setting &setting : settings) {
		const zend_ini_entry *entry = entry_of(setting.name);
		ASSERT_NE(nullptr, entry->value) << setting.name;
		EXPECT_STREQ(setting.initial, ZSTR_VAL(entry->value)) << setting.name;
	}
}

TEST_F(Settings, StartupCalledEachHandlerWithTheDefault) {
	const zend_kaq_globals &startup = globals_at_startup();
	for (const Setting &setting : settings) {
		if (setting.number) {
			EXPECT_EQ(atoi(setting.initial), startup.*setting.number) << setting.name;
		} else if (setting.initial[0]) {
			EXPECT_EQ(setting.initial, text_of(setting)) << setting.name;
		} else {
			EXPECT_EQ(nullptr, startup.*setting.text) << setting.name;
		}
	}
}

TEST_F(Settings, IntegerGoesIntoItsOwnFieldAndNoOther) {
	for_each_number([this](const Setting &setting) {
		int before[sizeof(settings) / sizeof(settings[0])] = {};
		for (size_t i = 0; i < sizeof(settings) / sizeof(settings[0]); i++) {
			before[i] = settings[i].number ? g->*settings[i].number : 0;
		}
		EXPECT_TRUE(set(setting.name, "4711"));
		for (size_t i = 0; i < sizeof(settings) / sizeof(settings[0]); i++) {
			if (settings[i].number) {
				EXPECT_EQ(&settings[i] == &setting ? 4711 : before[i], g->*settings[i].number)
					<< setting.name << " " << settings[i].name;
			}
		}
	});
}

TEST_F(Settings, IntegersAreReadLikeStrtolDoes) {
	static const struct {
		const char *text;
		int number;
	} rows[] = {{"0", 0},
				{"-7", -7},
				{"+8", 8},
				{"  42", 42},
				{"12ms", 12},
				{"0x10", 0},
				{"010", 10},
				{"on", 0},
				{"1e3", 1},
				{" ", 0},
				{"2147483647", 2147483647},
				{"-2147483648", -2147483647 - 1}};
	for_each_number([this](const Setting &setting) {
		for (const auto &row : rows) {
			g->*setting.number = 99;
			EXPECT_TRUE(set(setting.name, row.text));
			EXPECT_EQ(std::string(setting.name) + "=" + std::to_string(row.number),
					  name_and_number(setting))
				<< row.text;
		}
	});
}

TEST_F(Settings, HugeIntegerIsCutLikeAConversionToInt) {
	EXPECT_TRUE(set("kaq.span_limit", "4294967297"));
	EXPECT_EQ(1, g->span_limit);
	EXPECT_TRUE(set("kaq.span_limit", "99999999999999999999"));
	EXPECT_EQ(-1, g->span_limit) << "the largest long";
}

TEST_F(Settings, EmptyValueChangesNoInteger) {
	for_each_number([this](const Setting &setting) {
		EXPECT_TRUE(set(setting.name, "4711"));
		EXPECT_TRUE(set(setting.name, ""));
		EXPECT_EQ(4711, g->*setting.number) << setting.name;
	});
}

TEST_F(Settings, RestoreBringsTheIntegerBack) {
	for_each_number([this](const Setting &setting) {
		EXPECT_TRUE(set(setting.name, "4711"));
		restore(setting.name);
		EXPECT_EQ(atoi(setting.initial), g->*setting.number) << setting.name;
	});
}

TEST_F(Settings, TextsAreCopiesThatOutliveTheEnginesValue) {
	for (const Setting &setting : settings) {
		if (setting.text) {
			EXPECT_TRUE(set(setting.name, "first"));
			EXPECT_EQ("first", text_of(setting)) << setting.name;
			EXPECT_NE(ZSTR_VAL(entry_of(setting.name)->value), g->*setting.text) << setting.name;
			EXPECT_TRUE(set(setting.name, "second"));
			EXPECT_EQ("second", text_of(setting)) << setting.name;
			restore(setting.name);
		}
	}
}

TEST_F(Settings, EmptyValueChangesNoText) {
	for (const Setting &setting : settings) {
		if (setting.text) {
			EXPECT_TRUE(set(setting.name, "kept"));
			EXPECT_TRUE(set(setting.name, ""));
			EXPECT_EQ("kept", text_of(setting)) << setting.name;
			restore(setting.name);
		}
	}
}

TEST_F(Settings, RestoreOfANonEmptyTextBringsItBack) {
	EXPECT_TRUE(set("kaq.application_name", "other"));
	restore("kaq.application_name");
	EXPECT_STREQ("PHP-Application", g->applicationname);
}

TEST_F(Settings, RestoreToAnEmptyTextIsIgnoredAndTheFieldStaysReadable) {
	EXPECT_TRUE(set("kaq.application_group", std::string(100, 'g')));
	restore("kaq.application_group");
	EXPECT_EQ(std::string(100, 'g'), g->applicationgroup);
	end_request();
	start_request();
	EXPECT_EQ(std::string(100, 'g'), g->applicationgroup);
	EXPECT_STREQ(g->applicationgroup, g->application_group);
}

TEST_F(Settings, RequestEndRestoresWhatTheScriptSet) {
	EXPECT_TRUE(set("kaq.method_threshold", "77"));
	EXPECT_TRUE(set("kaq.application_name", "other"));
	end_request();
	EXPECT_EQ(10, g->method_threshold);
	EXPECT_STREQ("PHP-Application", g->applicationname);
}

TEST_F(Settings, TextEndsAtANul) {
	EXPECT_TRUE(set("kaq.application_name", std::string("a\0b", 3)));
	EXPECT_STREQ("a", g->applicationname);
}

TEST_F(Settings, SettingAgainAndAgainLeavesNothingBehind) {
	EXPECT_FALSE(leaks([&] {
		for (const Setting &setting : settings) {
			if (setting.text) {
				EXPECT_TRUE(set(setting.name, std::string(200, 'a')));
				restore(setting.name);
			}
		}
	}));
}

/* The copies for the request. */
class SettingCopies : public EngineTest {
protected:
	struct Pair {
		char *zend_kaq_globals::*setting;
		char *zend_kaq_globals::*copy;
	};
	const std::vector<Pair> pairs = {
		{&zend_kaq_globals::applicationname, &zend_kaq_globals::application_name},
		{&zend_kaq_globals::remoteexporterhostname, &zend_kaq_globals::remote_exporter_hostname},
		{&zend_kaq_globals::remoteexporterip, &zend_kaq_globals::remote_exporter_ip},
		{&zend_kaq_globals::applicationgroup, &zend_kaq_globals::application_group}};

	void SetUp() override {
		EngineTest::SetUp();
		for (const Pair &pair : pairs) {
			saved_.push_back(g->*pair.setting);
			g->*pair.setting = nullptr;
		}
	}

	void TearDown() override {
		for (size_t i = 0; i < pairs.size(); i++) {
			free(g->*pairs[i].copy);
			free(g->*pairs[i].setting);
			g->*pairs[i].copy = nullptr;
			g->*pairs[i].setting = saved_[i];
		}
		EngineTest::TearDown();
	}

private:
	std::vector<char *> saved_;
};

TEST_F(SettingCopies, SetTextIsCopied) {
	for (const Pair &pair : pairs) {
		g->*pair.setting = strdup("text");
	}
	kaq_set_request_global_strings();
	for (const Pair &pair : pairs) {
		EXPECT_STREQ("text", g->*pair.copy);
		EXPECT_NE(g->*pair.setting, g->*pair.copy);
	}
}

TEST_F(SettingCopies, UnsetTextGivesNoCopyAndDropsTheEarlierOne) {
	for (const Pair &pair : pairs) {
		g->*pair.copy = strdup("earlier");
	}
	kaq_set_request_global_strings();
	for (const Pair &pair : pairs) {
		EXPECT_EQ(nullptr, g->*pair.copy);
	}
}

TEST_F(SettingCopies, EarlierCopyIsReplaced) {
	g->applicationname = strdup("a text of more than a few bytes");
	EXPECT_FALSE(leaks(kaq_set_request_global_strings));
	EXPECT_STREQ("a text of more than a few bytes", g->application_name);
}
