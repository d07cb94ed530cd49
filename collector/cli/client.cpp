#include "cli/client.h"

#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "cli/format.h"
#include "cli/places.h"
#include "query/mistake.h"
#include "query/service.h"
#include "store/sqlite_store.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr long kConnectSeconds = 5;
/* Deleting what is found takes seconds for each hour. */
constexpr long kAnswerSeconds = 3600;

using Curl = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

std::string escaped(CURL *curl, const std::string &text) {
	char *result = curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size()));
	std::string kept = result ? result : "";
	curl_free(result);
	return kept;
}

std::string form_of(CURL *curl, const Parameters &parameters) {
	std::string form;
	for (const auto &[name, value] : parameters) {
		if (!value.empty()) {
			form += (form.empty() ? "" : "&") + name + "=" + escaped(curl, value);
		}
	}
	return form;
}

size_t on_piece(char *data, size_t size, size_t count, void *text) {
	static_cast<std::string *>(text)->append(data, size * count);
	return size * count;
}

Reply reply_of(const Answer &answer) {
	return {answer.status, text_of(answer), true};
}

} // namespace

struct Client::Direct {
	explicit Direct(const std::string &directory) : store(settings_of(directory)) {
	}
	static SqliteSettings settings_of(const std::string &directory) {
		SqliteSettings settings;
		settings.directory = directory;
		settings.is_read_only = true;
		return settings;
	}

	SqliteStore store;
	ServiceContext context{store, system_time, nullptr, nullptr};
};

nlohmann::json Reply::json() const {
	nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
	return json.is_object() ? json : nlohmann::json::object();
}

Client::Client(const CommonOptions &options)
	: store_(store_directory(options.store, options.configuration)),
	  has_store_(!options.store.empty()) {
}

Client::~Client() = default;

Reply Client::get(const std::string &path, const Parameters &parameters) {
	return ask("GET", path, parameters);
}

Reply Client::post(const std::string &path, const Parameters &parameters) {
	return ask("POST", path, parameters);
}

Reply Client::ask(const std::string &method, const std::string &path,
				  const Parameters &parameters) {
	Curl curl(curl_easy_init(), curl_easy_cleanup);
	if (!curl) {
		return {0, "libcurl has no memory"};
	}
	std::string socket = socket_of(store_);
	std::string form = form_of(curl.get(), parameters);
	bool is_post = method == "POST";
	std::string url = "http://localhost" + path + (is_post || form.empty() ? "" : "?" + form);
	Reply reply;
	curl_easy_setopt(curl.get(), CURLOPT_UNIX_SOCKET_PATH, socket.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
	curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, kAnswerSeconds);
	curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, on_piece);
	curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.text);
	if (is_post) {
		curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, form.c_str());
	}
	CURLcode code = curl_easy_perform(curl.get());
	if (code == CURLE_OK) {
		long status = 0;
		curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
		reply.status = static_cast<int>(status);
		return reply;
	}
	bool may_run = is_post && is_forbidden(store_);
	if (code == CURLE_COULDNT_CONNECT && has_store_ && !may_run) {
		return ask_store(method, path, parameters);
	}
	if (code == CURLE_COULDNT_CONNECT) {
		return {0, unanswered_text(store_) +
					   (is_post ? "" : ", or name the store to look into with --store DIR")};
	}
	return {0, std::string("the collector did not answer: ") + curl_easy_strerror(code)};
}

Reply Client::ask_store(const std::string &method, const std::string &path,
						const Parameters &parameters) {
	const Service *service = find_service(method, path);
	if (method == "POST" || !service) {
		return {0, "no collector runs on " + store_ +
					   ", and without one nothing can be changed: start it with 'kaq collect'"};
	}
	if (access(store_.c_str(), R_OK | X_OK) != 0) {
		return {0, errno == ENOENT || errno == ENOTDIR
					   ? "there is no store in " + store_
					   : "cannot look into " + store_ + ": " + strerror(errno)};
	}
	Question question;
	for (const auto &[name, value] : parameters) {
		if (!value.empty()) {
			question.parameters.emplace(name, value);
		}
	}
	try {
		if (!direct_) {
			direct_ = std::make_unique<Direct>(store_);
		}
		return reply_of(answer_of(*service, direct_->context, question));
	} catch (const StoreError &error) {
		return {0, error.what()};
	}
}

std::string unanswered_text(const std::string &store) {
	std::string socket = socket_of(store);
	return is_forbidden(store)
			   ? "a collector may run, but you may not use " + socket +
					 ": ask as root, or as a member of the group kaq"
			   : "no collector answers on " + socket + ": start one with 'kaq collect'";
}

Parameters parameters_of(const FilterOptions &options) {
	return {{"q", options.query},
			{"from", options.from},
			{"to", options.to},
			{"app", options.application}};
}

int fail(const Reply &reply, const std::string &query) {
	if (reply.status == 0) {
		fprintf(stderr, "kaq: %s\n", printable(reply.text).c_str());
		return kFailed;
	}
	nlohmann::json error = reply.json().value("error", nlohmann::json::object());
	std::string message = error.value("message", reply.text);
	std::string hint = error.value("hint", "");
	std::vector<Mistake> mistakes;
	for (const nlohmann::json &each : error.value("mistakes", nlohmann::json::array())) {
		mistakes.push_back(
			{each.value("column", size_t{1}), each.value("text", ""), each.value("hint", "")});
	}
	if (!mistakes.empty() && !query.empty()) {
		fprintf(stderr, "kaq: the query has a mistake\n%s", explain(query, mistakes).c_str());
	} else {
		fprintf(stderr, "kaq: %s%s%s\n", printable(message).c_str(), hint.empty() ? "" : "; ",
				printable(hint).c_str());
	}
	return reply.status == 400 ? kMisunderstood : kFailed;
}

void print_json(const Reply &reply) {
	puts(reply.text.c_str());
}

} // namespace kaq
