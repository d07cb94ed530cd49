#include "net/data_server.h"

namespace kaq {
namespace {

/* A payload of as many spans as the extension records by itself, with long statements, is some 10
 * MiB. */
constexpr size_t kLongestInput = 32 * 1024 * 1024;

/* The extension writes for at most a second. */
constexpr std::chrono::milliseconds kDeadline{5000};
constexpr size_t kBytesPerSecond = 256 * 1024;
constexpr int kBacklog = 1024;

void count(std::atomic<uint64_t> &counter) {
	counter.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

DataServer::DataServer(const ListenPlace &place, MemoryBudget &budget, Receiver receiver,
					   size_t most_connections)
	: TcpServer(place, {most_connections, kDeadline, kBytesPerSecond, kBacklog}, "kaq-data"),
	  budget_(budget), receiver_(std::move(receiver)) {
}

DataServer::~DataServer() {
	join();
}

TcpServer::Next DataServer::on_bytes(Connection &connection, std::string_view bytes) {
	if (connection.received == bytes.size()) {
		inputs_.emplace(connection.fd.get(), BudgetedBuffer(budget_));
	}
	auto input = inputs_.find(connection.fd.get());
	if (input == inputs_.end()) {
		return Next::kReadOn; /* dropped */
	}
	bool is_too_long = connection.received > kLongestInput;
	if (is_too_long || !input->second.append(bytes)) {
		count(is_too_long ? counts_.too_long : counts_.no_memory);
		inputs_.erase(input);
	}
	return Next::kReadOn;
}

/* The extension has closed its side: a reset from ours leaves no socket behind that waits for
 * stragglers, of which a busy site would have tens of thousands. */
TcpServer::Next DataServer::on_end_of_input(Connection &connection) {
	auto input = inputs_.find(connection.fd.get());
	if (input != inputs_.end()) {
		size_t size = input->second.bytes().size();
		if (receiver_(std::move(input->second))) {
			count(counts_.received);
			counts_.bytes.fetch_add(size, std::memory_order_relaxed);
		} else {
			count(counts_.not_taken);
		}
	}
	close_with_reset(connection);
	return Next::kEnd;
}

void DataServer::on_closed(const Connection &connection) {
	inputs_.erase(connection.fd.get());
}

void DataServer::on_late(Connection &connection) {
	count(counts_.late);
	close_with_reset(connection);
}

void DataServer::on_refused() {
	count(counts_.refused);
}

void DataServer::on_foreign() {
	count(counts_.foreign);
}

} // namespace kaq
