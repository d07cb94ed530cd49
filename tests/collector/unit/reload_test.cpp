/* What a new configuration may change while the collector runs. */
#include "cli/places.h"
#include "cli/reload.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>

using kaq::Configuration;
using kaq::keep_fixed_settings;

TEST(Reload, PortsAddressesAndTheStoreStay) {
	Configuration running;
	running.store.directory = "/a";
	Configuration next = running;
	EXPECT_TRUE(keep_fixed_settings(running, next).empty());
	next.listen.addresses = {"127.0.0.1", "::1"};
	next.listen.handshake_port = 1;
	next.listen.data_port = 2;
	next.listen.http_port = 3;
	next.listen.socket_group = "x";
	next.store.directory = "/b";
	next.names.cap = 7;
	next.store.size_cap = 1 << 30;
	std::vector<std::string> wanted = {"listen.addresses", "listen.handshake",    "listen.data",
									   "listen.http",      "listen.socket_group", "store.directory",
									   "names.cap"};
	EXPECT_EQ(wanted, keep_fixed_settings(running, next));
	EXPECT_EQ(running.listen.addresses, next.listen.addresses);
	EXPECT_EQ(20021, next.listen.handshake_port);
	EXPECT_EQ(20022, next.listen.data_port);
	EXPECT_EQ(20023, next.listen.http_port);
	EXPECT_EQ("kaq", next.listen.socket_group);
	EXPECT_EQ("/a", next.store.directory);
	EXPECT_EQ(2000u, next.names.cap);
	EXPECT_EQ(1u << 30, next.store.size_cap);
}

TEST(Reload, OptionsWinOverTheFile) {
	char path[] = "/tmp/kaq-reload-XXXXXX";
	int fd = mkstemp(path);
	ASSERT_GE(fd, 0);
	close(fd);
	std::ofstream(path) << "[listen]\nhandshake = 1\ndata = 2\n[store]\ndirectory = \"/a\"\n";
	kaq::CollectOptions options;
	options.configuration = path;
	options.handshake_port = 7;
	auto loaded = kaq::load_with_options(options);
	ASSERT_TRUE(loaded);
	EXPECT_EQ(7, loaded->listen.handshake_port);
	EXPECT_EQ(2, loaded->listen.data_port);
	EXPECT_EQ("/a", loaded->store.directory);
	/* So the verbs find the collector that has this file. */
	EXPECT_EQ("/a", kaq::store_directory("", path));
	EXPECT_EQ("/c", kaq::store_directory("/c", path));
	options.store = "/b";
	EXPECT_EQ("/b", kaq::load_with_options(options)->store.directory);
	unlink(path);
	EXPECT_FALSE(kaq::load_with_options(options));
}
