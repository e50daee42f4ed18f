/**
 * Reading a description from JSON. README.md has the keys.
 */
#ifndef IDENTIFICATION_DESCRIPTIONREADER_H
#define IDENTIFICATION_DESCRIPTIONREADER_H

#include <string>
#include <string_view>

#include "description.h"

namespace identification
{

/** Throws InputError with the place in the text; what it returns fits the transaction. */
Description parseDescription(std::string_view json);

/** The same for a file; its name stands in front of the place. */
Description readDescription(const std::string& path);

} // namespace identification

#endif
