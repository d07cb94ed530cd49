#include "cli/reload.h"

#include "cli/places.h"

namespace kaq {
namespace {

template <typename Value>
void keep_fixed(const Value &running, Value &next, const char *name,
				std::vector<std::string> &changed) {
	if (!(running == next)) {
		changed.emplace_back(name);
		next = running;
	}
}

} // namespace

ConfigurationOrMistakes load_with_options(const CollectOptions &options) {
	ConfigurationOrMistakes loaded = load_configuration(options.configuration);
	if (!loaded) {
		return loaded;
	}
	ListenSettings &listen = loaded->listen;
	listen.handshake_port = options.handshake_port.value_or(listen.handshake_port);
	listen.data_port = options.data_port.value_or(listen.data_port);
	listen.http_port = options.http_port.value_or(listen.http_port);
	std::string &directory = loaded->store.directory;
	if (!options.store.empty()) {
		directory = options.store;
	} else if (directory.empty()) {
		directory = default_store();
	}
	return loaded;
}

std::vector<std::string> keep_fixed_settings(const Configuration &running, Configuration &next) {
	std::vector<std::string> changed;
	const ListenSettings &now = running.listen;
	ListenSettings &then = next.listen;
	keep_fixed(now.addresses, then.addresses, "listen.addresses", changed);
	keep_fixed(now.handshake_port, then.handshake_port, "listen.handshake", changed);
	keep_fixed(now.data_port, then.data_port, "listen.data", changed);
	keep_fixed(now.http_port, then.http_port, "listen.http", changed);
	keep_fixed(now.socket_group, then.socket_group, "listen.socket_group", changed);
	keep_fixed(running.store.directory, next.store.directory, "store.directory", changed);
	keep_fixed(running.names.cap, next.names.cap, "names.cap", changed);
	return changed;
}

} // namespace kaq
