#include "http/viewer_pages.h"

#include <string>

#include "http/viewer_files.h"

namespace kaq {
namespace {

/* What all pages begin with; the program in it reads from the address which one is meant. */
constexpr std::string_view kPage = "/index.html";

/* Where npm was not at hand. */
constexpr const char *kNoViewer = R"(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>kaq</title>
</head>
<body>
<h1>The collector runs, but without its pages</h1>
<p>They are made with npm, which was not at hand when this program was built. To get them on Debian 12:</p>
<pre>sudo apt-get install nodejs npm
script/build --collector</pre>
<p>Then start the program that this prints. Until then a terminal shows the same:</p>
<pre>kaq top       transactions and what they take
kaq find      requests
kaq show ID   one request, and what slowed it</pre>
<p>Programs ask at <code>/api/v1</code>.</p>
</body>
</html>
)";

const ViewerFile *find_file(std::string_view path) {
	for (const ViewerFile &file : viewer_files()) {
		if (file.path == path) {
			return &file;
		}
	}
	return nullptr;
}

/* Files have a dot. */
bool is_page(std::string_view path) {
	return path.find('.') == std::string_view::npos;
}

HttpAnswer answer_with(const ViewerFile &file, const HttpRequest &request) {
	HttpAnswer answer;
	answer.type = std::string(file.type);
	/* Asked for again each time, and sent only if another program has been started meanwhile. */
	answer.headers = {{"Cache-Control", "no-cache"},
					  {"ETag", std::string(file.etag)},
					  {"Vary", "Accept-Encoding"}};
	if (request.known_etag == file.etag) {
		answer.status = 304;
	} else if (request.takes_gzip) {
		answer.headers.push_back({"Content-Encoding", "gzip"});
		answer.body = std::string(file.gzip);
	} else {
		answer.body = std::string(file.plain);
	}
	return answer;
}

} // namespace

bool is_viewer_path(std::string_view path) {
	bool is_one_word = path.substr(0, 1) == "/" && path.find('/', 1) == std::string_view::npos;
	return is_one_word && path != "/metrics";
}

std::optional<HttpAnswer> viewer_answer(const HttpRequest &request) {
	bool is_a_page = is_page(request.path);
	if (const ViewerFile *file = find_file(is_a_page ? kPage : request.path)) {
		return answer_with(*file, request);
	}
	return is_a_page ? std::optional(HttpAnswer{200, "text/html; charset=utf-8", kNoViewer})
					 : std::nullopt;
}

} // namespace kaq
