/*
 * Connections for reading that are kept open between uses, since opening one costs more than most
 * questions. Any thread; each connection has one user at a time.
 */
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include <SQLiteCpp/Database.h>

namespace kaq {

/* Tells a file from another one that has got its name. */
struct FileIdentity {
	uint64_t device = 0;
	uint64_t number = 0; /* 0: there is none */
};

class DatabasePool {
	struct Idle {
		std::string path;
		std::unique_ptr<SQLite::Database> database;
		FileIdentity identity; /* of the file that it was opened on */
	};

public:
	/* A connection, given back at the end of its life. It must not outlive the pool. */
	class Lease {
	public:
		Lease(DatabasePool &pool, Idle &&one)
			: pool_(&pool), path_(std::move(one.path)), database_(std::move(one.database)),
			  identity_(one.identity) {
		}
		Lease(Lease &&) = default;
		Lease &operator=(Lease &&) = delete;
		~Lease() {
			if (database_) {
				pool_->give_back({std::move(path_), std::move(database_), identity_});
			}
		}
		SQLite::Database &operator*() {
			return *database_;
		}
		SQLite::Database *operator->() {
			return database_.get();
		}
		/* It is damaged: not to be used again. */
		void discard() {
			database_.reset();
		}

	private:
		DatabasePool *pool_;
		std::string path_;
		std::unique_ptr<SQLite::Database> database_;
		FileIdentity identity_;
	};

	/* No more than `most` are open without being used. */
	explicit DatabasePool(size_t most) : most_(most) {
	}

	/* Throws SQLite::Exception. */
	Lease lease(const std::string &path);
	/* Before a file is removed. */
	void forget(const std::string &path);

private:
	void give_back(Idle &&one);

	const size_t most_;
	std::mutex mutex_;
	std::list<Idle> idle_; /* the last used first */
};

} // namespace kaq
