/**
 * The output file, written by a data queue's worker.
 */
#ifndef IDENTIFICATION_OUTPUTWORKER_H
#define IDENTIFICATION_OUTPUTWORKER_H

#include <string>
#include <string_view>

namespace identification
{

/**
 * replaceFile() on a thread of its own; returns when that is done, or throws what it has thrown.
 *
 * The file does not hang on the worker: where its wake-up is lost or it does not exist at all, the
 * caller writes the file, after a second.
 */
void writeOutput(const std::string& path, std::string_view bytes);

} // namespace identification

#endif
