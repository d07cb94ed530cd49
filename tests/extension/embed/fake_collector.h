/*
 * A collector inside the test program: two loopback ports that the system chose, one thread.
 * Records come in the order in which the extension sent them.
 */
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct Received {
	bool is_status; /* from the status port, else from the data port */
	std::string bytes;
};

class FakeCollector {
public:
	FakeCollector();
	~FakeCollector();

	int status_port() const {
		return status_port_;
	}
	int data_port() const {
		return data_port_;
	}

	/* What every status request gets from now on. */
	void answer(const std::string &reply);

	/* Everything received since the last call. Waits until all that was sent before has arrived. */
	std::vector<Received> take();
	/* The same, of the data port only. */
	std::vector<std::string> take_data();

private:
	void serve();
	void serve_status(int connection);
	void serve_data(int connection);
	void record(bool is_status, const std::string &bytes);

	int status_fd_;
	int data_fd_;
	int status_port_;
	int data_port_;
	std::mutex mutex_;
	std::condition_variable changed_;
	std::string reply_;
	std::vector<Received> received_;
	bool marker_seen_ = false;
	std::thread thread_;
};

/* The collector of this process, started with the first call. */
FakeCollector &collector();

/* Bytes of a Base64 line that ends with its only line feed; "" and a test failure for any other
 * text. */
std::string decode_line(const std::string &line);
