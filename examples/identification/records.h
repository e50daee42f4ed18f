/**
 * From a description to the bytes of a transaction.
 */
#ifndef IDENTIFICATION_RECORDS_H
#define IDENTIFICATION_RECORDS_H

#include "description.h"
#include "transaction.h"

namespace identification
{

/**
 * Fills the component records and marshals them all, in the order of their numbers. Throws
 * SystemError when memory is short, and when the payload does not fit, which parseDescription()
 * has ruled out for what it returned.
 */
Transaction marshalIdentification(const Description& description);

} // namespace identification

#endif
