/**
 * The two processes.
 */
#ifndef IDENTIFICATION_ROLES_H
#define IDENTIFICATION_ROLES_H

#include "description.h"
#include "failures.h"
#include "options.h"
#include "senderComponent.h"
#include "transaction.h"

namespace identification
{

/**
 * Has the component marshal the description and send it, and waits for that; returns what was sent.
 * Throws SystemError.
 */
Transaction runSender(SenderComponent& component, int socket, const Description& description);

/**
 * Receives an identification, prints what the options ask for to the descriptor `output`, and
 * names every difference from `sent` on standard error. Throws SystemError.
 */
ExitCode runReader(int socket, const Description& sent, const Options& options, int output);

/**
 * The main job: forks the reader and becomes the sender. Returns in both processes, with the exit
 * code of each; the sender's is the program's. Throws SystemError.
 */
ExitCode identify(const Description& description, const Options& options);

/** Prints to a descriptor. Nobody reading any more is no failure; any other throws SystemError. */
void print(int output, const std::string& text);

} // namespace identification

#endif
