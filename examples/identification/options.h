/**
 * The command line.
 */
#ifndef IDENTIFICATION_OPTIONS_H
#define IDENTIFICATION_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include <korvane/iAp2LogUtil.h>

namespace identification
{

struct Options
{
    std::string input;
    std::optional<std::string> output;
    int level = IAP2_LOG_INFO;
    bool dump = false;
    bool quiet = false;
    bool help = false;
};

/** Throws InputError. @param arguments  what stands behind the program's name. */
Options parseOptions(const std::vector<std::string>& arguments);

/** What --help prints. */
std::string helpText();

} // namespace identification

#endif
