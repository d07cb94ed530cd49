/*
 * A transaction as text that is kept: the JSON document that the extension sends, valid and without
 * its gaps, so that one reader reads both. Names of fields are flat ("a[b]").
 */
#pragma once

#include <string>

#include "model/transaction.h"

namespace kaq {

std::string to_document(const Transaction &transaction);

} // namespace kaq
