/**
 * Where two descriptions differ.
 */
#ifndef IDENTIFICATION_COMPARISON_H
#define IDENTIFICATION_COMPARISON_H

#include <cstddef>
#include <string>
#include <vector>

#include "description.h"

namespace identification
{

struct Difference
{
    std::string place;
    std::string text; ///< what is different there
};

/** Every place in which the two differ, in the order of the bytes. */
std::vector<Difference> compare(const Description& sent, const Description& received);

/** How many values compare() looks at, presence flags and counts included. */
std::size_t countOfValues(const Description& description);

} // namespace identification

#endif
