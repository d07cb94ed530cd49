#include "http/http_server.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <list>
#include <optional>
#include <system_error>
#include <thread>

#include "http/http_messages.h"
#include "util/background.h"

namespace kaq {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Error = boost::system::error_code;
using Stream = beast::basic_stream<asio::generic::stream_protocol>;

constexpr std::chrono::seconds kRequestTime{10};
constexpr std::chrono::seconds kIdleTime{60};
/* A live stream says something at least that often, so that a peer that is gone is noticed. */
constexpr std::chrono::seconds kHeartbeat{15};
constexpr size_t kLongestHeader = 16 * 1024;
constexpr size_t kLongestBody = 1024 * 1024;
/* What was needed to make one is given back to the system. */
constexpr size_t kLargeAnswer = 1024 * 1024;
/* Until descriptors may be there again. */
constexpr std::chrono::milliseconds kWithoutDescriptors{100};
constexpr int kBacklog = 128;
constexpr size_t kWorkers = 4;
/* Of what the workers do or are to do. */
constexpr size_t kMostWork = 64;

class Session;

/* The connections of the port, or of the socket: neither shuts out the other. */
struct Crowd {
	std::atomic<size_t> connections{0};
	std::list<Session *> idle; /* that wait for their peers, the longest first */
};

struct Shared {
	HttpSettings settings;
	HttpServer::Handler handler;
	LiveFeed &feed;
	AccessRules access = {};
	HttpCounts counts{};
	Crowd tcp = {};
	Crowd local = {};
	size_t work = 0; /* that is being done or waits */
	asio::thread_pool *workers = nullptr;
};

class Session : public std::enable_shared_from_this<Session> {
public:
	Session(asio::io_context &context, asio::generic::stream_protocol::socket socket,
			Shared &shared, bool is_local)
		: context_(context), stream_(std::move(socket)), heartbeat_(context), shared_(shared),
		  crowd_(is_local ? shared.local : shared.tcp), is_local_(is_local),
		  place_(crowd_.idle.end()) {
		crowd_.connections++;
	}
	~Session() {
		be_busy();
		crowd_.connections--;
	}

	/* For another one's sake. */
	void give_way() {
		be_busy();
		stream_.close();
	}

	void read() {
		be_idle();
		parser_.emplace();
		parser_->header_limit(kLongestHeader);
		parser_->body_limit(kLongestBody);
		stream_.expires_after(is_first_ ? kRequestTime : kIdleTime);
		is_first_ = false;
		http::async_read_header(
			stream_, buffer_, *parser_,
			[self = shared_from_this()](Error error, size_t) { self->on_header(error); });
	}

private:
	void be_idle() {
		be_busy();
		place_ = crowd_.idle.insert(crowd_.idle.end(), this);
	}
	void be_busy() {
		if (place_ != crowd_.idle.end()) {
			crowd_.idle.erase(place_);
			place_ = crowd_.idle.end();
		}
	}

	/* Nobody needs to send a body to be refused. */
	void on_header(Error error) {
		if (error) {
			fail(error);
			return;
		}
		const auto &message = parser_->get();
		if (std::optional<HttpAnswer> refusal =
				is_local_ ? std::nullopt : refusal_of(message, shared_.access)) {
			send(std::move(*refusal), message.keep_alive() && parser_->is_done());
		} else if (parser_->is_done()) {
			on_read({});
		} else {
			http::async_read(
				stream_, buffer_, *parser_,
				[self = shared_from_this()](Error error, size_t) { self->on_read(error); });
		}
	}

	void fail(Error error) {
		HttpCounts &counts = shared_.counts;
		if (error == http::error::header_limit || error == http::error::body_limit) {
			counts.too_long++;
			send({413, "text/plain", "too long\n"}, false);
		} else if (error == beast::error::timeout) {
			counts.late += is_begun() ? 1 : 0;
		} else if (error != http::error::end_of_stream && error != http::error::partial_message &&
				   error.category() == make_error_code(http::error::bad_method).category()) {
			counts.malformed++;
			send({400, "text/plain", "no HTTP\n"}, false);
		}
	}

	/* Whether the request has begun that did not come in time. */
	bool is_begun() const {
		return buffer_.size() > 0 || parser_->got_some();
	}

	void on_read(Error error) {
		be_busy();
		if (error) {
			fail(error);
			return;
		}
		const auto &message = parser_->get();
		HttpRequest request = request_of(message, is_local_, shared_.access);
		HttpAnswer answer = shared_.handler(request);
		if (answer.work) {
			do_work(std::move(answer.work));
		} else if (answer.is_live && message.method() != http::verb::head) {
			start_stream(std::move(answer.live_filter));
		} else {
			send(std::move(answer), message.keep_alive());
		}
	}

	/* The session is destroyed on the server's thread, and nowhere else while that runs. */
	void do_work(std::function<HttpAnswer()> work) {
		if (shared_.work >= kMostWork) {
			HttpAnswer busy{503, "text/plain", "too much is being asked at the moment\n"};
			busy.headers.push_back({"Retry-After", "1"});
			send(std::move(busy), parser_->get().keep_alive());
			return;
		}
		shared_.work++;
		asio::post(*shared_.workers, [self = shared_from_this(), work = std::move(work)]() mutable {
			thread_local bool is_behind = false;
			if (!is_behind) {
				work_in_background("kaq-worker");
				is_behind = true;
			}
			HttpAnswer answer = result_of(work);
			asio::io_context &context = self->context_;
			asio::post(context, [self = std::move(self), answer = std::move(answer)]() mutable {
				self->shared_.work--;
				self->send(std::move(answer), self->parser_->get().keep_alive());
			});
		});
	}

	static HttpAnswer result_of(const std::function<HttpAnswer()> &work) {
		try {
			return work();
		} catch (const std::exception &error) {
			return {500, "text/plain", std::string(error.what()) + "\n"};
		}
	}

	void send(HttpAnswer answer, bool keeps_alive) {
		auto response = std::make_shared<AnswerMessage>(head_of(answer, keeps_alive));
		if (parser_->get().method() != http::verb::head) {
			response->body() = std::move(answer.body);
		}
		auto &message = *response;
		bool is_large = message.body().size() > kLargeAnswer;
		be_idle();
		stream_.expires_after(kIdleTime);
		http::async_write(stream_, message,
						  [self = shared_from_this(), response = std::move(response), keeps_alive,
						   is_large](Error error, size_t) mutable {
							  response.reset();
							  if (is_large) {
								  malloc_trim(0);
							  }
							  if (!error && keeps_alive) {
								  self->read();
							  }
						  });
	}

	/* From here on the stream's texts are written as they come. */
	void start_stream(Filter filter) {
		is_first_ = false;
		out_ = "HTTP/1.1 200 OK\r\nServer: kaq\r\nContent-Type: text/event-stream\r\n"
			   "Cache-Control: no-store\r\nContent-Security-Policy: default-src 'self'\r\n"
			   "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n: kaq\n\n";
		std::weak_ptr<Session> weak = weak_from_this();
		auto wake = [weak, &context = context_] {
			asio::post(context, [weak] {
				if (auto self = weak.lock()) {
					self->write_stream();
				}
			});
		};
		listener_ = shared_.feed.listen(wake, std::move(filter));
		wait_for_heartbeat();
		wait_for_hang_up();
		write_stream();
	}

	void wait_for_heartbeat() {
		heartbeat_.expires_after(kHeartbeat);
		heartbeat_.async_wait([weak = weak_from_this()](Error error) {
			auto self = weak.lock();
			if (!error && self) {
				self->out_ += ": still here\n\n";
				self->write_stream();
				self->wait_for_heartbeat();
			}
		});
	}

	/* A listener has nothing more to say; the end of its input is its end. */
	void wait_for_hang_up() {
		stream_.socket().async_wait(asio::socket_base::wait_read,
									[self = shared_from_this()](Error) { self->close(); });
	}

	void close() {
		heartbeat_.cancel();
		listener_.reset();
		stream_.close();
	}

	void write_stream() {
		if (is_writing_ || !listener_) {
			return;
		}
		uint64_t lost = 0;
		for (const SharedText &text : listener_->take(lost)) {
			out_ += "data: " + *text + "\n\n";
		}
		if (lost > 0) {
			out_ += "event: lost\ndata: " + std::to_string(lost) + "\n\n";
		}
		if (out_.empty()) {
			return;
		}
		is_writing_ = true;
		auto text = std::make_shared<std::string>(std::move(out_));
		out_.clear();
		stream_.expires_after(kIdleTime);
		asio::async_write(stream_, asio::buffer(*text),
						  [self = shared_from_this(), text](Error error, size_t) {
							  self->is_writing_ = false;
							  if (error) {
								  self->close();
							  } else {
								  self->stream_.expires_never();
								  self->write_stream();
							  }
						  });
	}

	asio::io_context &context_;
	Stream stream_;
	asio::steady_timer heartbeat_;
	beast::flat_buffer buffer_;
	std::optional<http::request_parser<http::string_body>> parser_;
	Shared &shared_;
	Crowd &crowd_;
	const bool is_local_;
	std::list<Session *>::iterator place_; /* in the crowd's list; its end: it is not there */
	bool is_first_ = true;
	bool is_writing_ = false;
	std::string out_;
	std::shared_ptr<LiveFeed::Listener> listener_;
};

/* What only waits costs its owner nothing, so that it must not keep others out; what is at work, or
 * a live stream, stays. */
bool make_room(Crowd &crowd, Shared &shared) {
	if (crowd.connections < shared.settings.most_connections) {
		return true;
	}
	shared.counts.crowded_out++;
	if (crowd.idle.empty()) {
		return false;
	}
	crowd.idle.front()->give_way();
	return true;
}

template <typename Acceptor>
void accept_on(asio::io_context &context, Acceptor &acceptor, Shared &shared, bool is_local);

/* Without descriptors the next one could not be accepted either, again and again. */
template <typename Acceptor>
void accept_later(asio::io_context &context, Acceptor &acceptor, Shared &shared, bool is_local) {
	auto timer = std::make_shared<asio::steady_timer>(context, kWithoutDescriptors);
	timer->async_wait([timer, &context, &acceptor, &shared, is_local](Error error) {
		if (!error) {
			accept_on(context, acceptor, shared, is_local);
		}
	});
}

template <typename Acceptor>
void accept_on(asio::io_context &context, Acceptor &acceptor, Shared &shared, bool is_local) {
	acceptor.async_accept([&context, &acceptor, &shared, is_local](Error error, auto socket) {
		if (error == asio::error::operation_aborted) {
			return;
		}
		if (error && error != asio::error::connection_aborted) {
			accept_later(context, acceptor, shared, is_local);
			return;
		}
		if (!error && make_room(is_local ? shared.local : shared.tcp, shared)) {
			std::make_shared<Session>(context, std::move(socket), shared, is_local)->read();
		}
		accept_on(context, acceptor, shared, is_local);
	});
}

} // namespace

struct HttpServer::State {
	State(HttpSettings settings, Handler handler, LiveFeed &feed)
		: shared{std::move(settings), std::move(handler), feed} {
		shared.workers = &workers;
	}

	void listen_tcp() {
		asio::ip::tcp::endpoint endpoint(asio::ip::make_address(shared.settings.address),
										 shared.settings.port);
		tcp.open(endpoint.protocol());
		tcp.set_option(asio::ip::tcp::acceptor::reuse_address(true));
		tcp.bind(endpoint);
		tcp.listen(kBacklog);
		shared.access = {shared.settings.token, tcp.local_endpoint().port(),
						 shared.settings.sessions};
	}

	/* The directory decides who may connect. */
	void listen_locally() {
		const std::string &path = shared.settings.socket_path;
		if (path.empty()) {
			return;
		}
		::unlink(path.c_str());
		asio::local::stream_protocol::endpoint endpoint(path);
		local.open(endpoint.protocol());
		local.bind(endpoint);
		::chmod(path.c_str(), 0660);
		local.listen(kBacklog);
	}

	/* What waits in the two that follow belongs to sessions, which use it to their end. */
	Shared shared;
	asio::io_context context{1};
	asio::thread_pool workers{kWorkers};
	asio::ip::tcp::acceptor tcp{context};
	asio::local::stream_protocol::acceptor local{context};
	std::thread thread;
};

HttpServer::HttpServer(HttpSettings settings, Handler handler, LiveFeed &feed)
	: state_(std::make_unique<State>(std::move(settings), std::move(handler), feed)) {
	const HttpSettings &wanted = state_->shared.settings;
	std::string where = wanted.address + " port " + std::to_string(wanted.port);
	try {
		state_->listen_tcp();
		where = wanted.socket_path;
		state_->listen_locally();
	} catch (const boost::system::system_error &error) {
		throw std::system_error(error.code().value(), std::generic_category(),
								"cannot listen on " + where);
	}
}

HttpServer::~HttpServer() {
	state_->context.stop();
	if (state_->thread.joinable()) {
		state_->thread.join();
	}
	state_->workers.stop();
	state_->workers.join();
	if (!state_->shared.settings.socket_path.empty()) {
		::unlink(state_->shared.settings.socket_path.c_str());
	}
}

const HttpCounts &HttpServer::counts() const {
	return state_->shared.counts;
}

uint16_t HttpServer::port() const {
	return state_->tcp.local_endpoint().port();
}

size_t HttpServer::open_connections() const {
	return state_->shared.tcp.connections + state_->shared.local.connections;
}

void HttpServer::start() {
	accept_on(state_->context, state_->tcp, state_->shared, false);
	if (state_->local.is_open()) {
		accept_on(state_->context, state_->local, state_->shared, true);
	}
	state_->thread = std::thread([this] { state_->context.run(); });
}

} // namespace kaq
