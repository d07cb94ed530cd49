#include <curl/curl.h>

#include <cstdio>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cli/client.h"
#include "cli/format.h"
#include "cli/places.h"
#include "cli/summary_text.h"
#include "cli/terminal.h"
#include "cli/verbs.h"
#include "query/parser.h"
#include "query/summary_json.h"

namespace kaq {
namespace {

/* Server-sent events, as they come in pieces. */
class Events {
public:
	explicit Events(const TailOptions &options)
		: options_(options), has_colours_(standard_output().has_colours) {
	}

	/* False when no more are wanted. */
	bool take(std::string_view piece) {
		text_.append(piece);
		size_t end;
		while ((end = text_.find('\n')) != std::string::npos) {
			std::string line = text_.substr(0, end);
			text_.erase(0, end + 1);
			if (!take_line(line)) {
				return false;
			}
		}
		return true;
	}

	bool is_done() const {
		return options_.count > 0 && shown_ >= options_.count;
	}

private:
	bool take_line(const std::string &line) {
		constexpr std::string_view event = "event: ";
		constexpr std::string_view data = "data: ";
		if (line.empty()) {
			is_lost_ = false;
		} else if (line.compare(0, event.size(), event) == 0) {
			is_lost_ = line.substr(event.size()) == "lost";
		} else if (line.compare(0, data.size(), data) == 0) {
			return is_lost_ ? say_lost(line.substr(data.size())) : show(line.substr(data.size()));
		}
		return true;
	}

	bool say_lost(const std::string &count) const {
		fprintf(stderr, "kaq: %s requests passed too fast to be shown\n", count.c_str());
		return true;
	}

	bool show(const std::string &text) {
		nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
		if (!json.is_object()) {
			return true;
		}
		Summary summary = summary_from_json(json);
		if (summary.duration < options_.slower || (options_.errors && !summary.is_failed)) {
			return true;
		}
		if (shown_++ == 0 && !options_.json) {
			puts(line_titles().c_str());
		}
		puts(options_.json ? text.c_str() : to_line(summary, has_colours_).c_str());
		return fflush(stdout) == 0 && !is_done();
	}

	const TailOptions &options_;
	const bool has_colours_;
	std::string text_;
	bool is_lost_ = false;
	int64_t shown_ = 0;
};

size_t on_piece(char *data, size_t size, size_t count, void *events) {
	size_t bytes = size * count;
	return static_cast<Events *>(events)->take({data, bytes}) ? bytes : CURL_WRITEFUNC_ERROR;
}

/* As a part of a URL. */
std::string escaped(CURL *curl, const std::string &text) {
	char *result = curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size()));
	std::string kept = result ? result : "";
	curl_free(result);
	return kept;
}

} // namespace

int tail(const TailOptions &options) {
	ParseSettings settings;
	settings.is_live = true;
	if (auto filter = parse_query(options.query, settings); !filter) {
		fprintf(stderr, "kaq: the query has a mistake\n%s",
				explain(options.query, filter.error()).c_str());
		return kMisunderstood;
	}
	std::string store = store_directory(options.store, options.configuration);
	std::string socket = socket_of(store);
	CURL *curl = curl_easy_init();
	if (!curl) {
		return 1;
	}
	Events events(options);
	curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, socket.c_str());
	std::string url = "http://localhost/api/v1/live?q=" + escaped(curl, options.query);
	curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
	curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
	curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, on_piece);
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, &events);
	CURLcode code = curl_easy_perform(curl);
	curl_easy_cleanup(curl);
	if (events.is_done()) {
		return 0;
	}
	if (code == CURLE_COULDNT_CONNECT) {
		fprintf(stderr, "kaq: %s\n", printable(unanswered_text(store)).c_str());
	} else if (code == CURLE_HTTP_RETURNED_ERROR) {
		fprintf(stderr, "kaq: the collector refused the query: is it of the same version?\n");
	} else {
		fprintf(stderr, "kaq: the collector has ended\n");
	}
	return 1;
}

} // namespace kaq
