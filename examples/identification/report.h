/**
 * What people get to see.
 */
#ifndef IDENTIFICATION_REPORT_H
#define IDENTIFICATION_REPORT_H

#include <string>
#include <vector>

#include "decoding.h"
#include "description.h"
#include "transaction.h"

namespace identification
{

/** One row for every component, and one for every kind of which there is none. */
std::string componentTable(const Description& description);

/** One row for every slot: offset, bytes, meaning. */
std::string slotDump(const Transaction& transaction, const std::vector<Slot>& slots);

} // namespace identification

#endif
