/*
 * Statements, hosts and failures of many transactions, each once, with where it happened. No state;
 * any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "store/figures.h"

namespace kaq {

/* What of a group's figures one transaction, or one caller, has. */
struct GroupPart {
	int64_t count = 0;
	int64_t total = 0;
};

struct FigureGroup {
	FigureKey key; /* without a transaction; of a statement without a caller */
	Figures figures;
	std::map<std::string, GroupPart> transactions;
	std::map<std::string, GroupPart> callers; /* of a statement */
};

/* The same for the keys of one group. */
FigureKey key_of_group(FigureKey key);

/* A group for each application and text, of statements also for each component, server and
 * database. */
std::vector<FigureGroup> groups_of(std::vector<FigureRow> rows);

struct NamedPart {
	std::string name;
	GroupPart part;
};

/* The first ones by total, then count. */
std::vector<NamedPart> largest_parts(const std::map<std::string, GroupPart> &parts, size_t limit);

} // namespace kaq
