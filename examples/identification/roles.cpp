#include "roles.h"

#include <array>
#include <cerrno>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "comparison.h"
#include "decoding.h"
#include "files.h"
#include "outputWorker.h"
#include "progress.h"
#include "report.h"
#include "senderComponent.h"
#include "text.h"
#include "transport.h"

namespace identification
{

namespace
{

constexpr std::size_t kShownCharacters = 300; ///< of what is different in one place

/** The second process, as the first one sees it; waited for in any case. */
class ReaderProcess
{
public:
    explicit ReaderProcess(pid_t process) : mProcess(process)
    {
    }
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;
    ~ReaderProcess()
    {
        if (mProcess > 0)
        {
            wait();
        }
    }

    /** Its status as waitpid() gives it, or -1. */
    int wait()
    {
        int status = -1;
        pid_t result;
        do
        {
            result = waitpid(mProcess, &status, 0);
        } while (result < 0 && errno == EINTR);
        mProcess = -1;
        return result < 0 ? -1 : status;
    }

private:
    pid_t mProcess;
};

/** The exit code of the reader; throws when it has none. */
ExitCode readersVerdict(int status)
{
    if (status != -1 && WIFEXITED(status))
    {
        switch (WEXITSTATUS(status))
        {
        case kSame:
            return kSame;
        case kDifferent:
            return kDifferent;
        case kSystem:
            return kSystem; // it has said why
        default:
            throw SystemError("the reader ended with code " + std::to_string(WEXITSTATUS(status)));
        }
    }
    if (status != -1 && WIFSIGNALED(status))
    {
        throw SystemError("the reader was ended by signal " + std::to_string(WTERMSIG(status)));
    }
    throw SystemError("the reader was lost");
}

} // namespace

// Which process a trace comes from is told by the sender's lines around its own, and by the
// reader's around the others: from sending on until the reader is done, the sender's threads have
// nothing to say above level 20.

Transaction runSender(SenderComponent& component, int socket, const Description& description)
{
    Transaction transaction;
    component.postDescribe(description);
    component.postMarshal(transaction);
    component.postSend(socket);
    const SenderComponent::Answer answer = component.answer();
    if (answer.failure != nullptr)
    {
        std::rethrow_exception(answer.failure);
    }
    logPrint(IAP2_LOG_DEBUG, "IAP2", __FILE__, __LINE__, "sender[%d]: has sent %zu bytes", getpid(),
             answer.sentBytes);
    return transaction;
}

ExitCode runReader(int socket, const Description& sent, const Options& options, int output)
{
    const Transaction transaction = receiveTransaction(socket);
    const ProgressLog log(options.level); // not before the sender has become silent
    sayProgress("reader", "received " + std::to_string(transaction.size()) + " bytes");
    const Decoded decoded = decodeIdentification(transaction);
    std::vector<Difference> differences;
    if (decoded.failure.has_value())
    {
        differences.push_back(*decoded.failure);
    }
    else
    {
        differences = compare(sent, decoded.description);
    }
    const std::string result =
        "differences from what was sent: " + std::to_string(differences.size());
    if (differences.empty())
    {
        sayProgress("reader", result);
    }
    awaitProgress();
    if (!differences.empty())
    {
        logPrint(IAP2_LOG_ERROR, "IAP2", __FILE__, __LINE__, "reader[%d]: %s", getpid(),
                 result.c_str());
    }

    std::string text;
    if (!options.quiet)
    {
        if (!decoded.failure.has_value())
        {
            text += componentTable(decoded.description) + '\n';
        }
        text += "Bytes of payload: " + std::to_string(transaction.payloadSize) +
                ". Values sent: " + std::to_string(countOfValues(sent)) +
                ". Differences in what was received: " + std::to_string(differences.size()) + ".\n";
    }
    if (options.dump)
    {
        text += (text.empty() ? "" : "\n") + slotDump(transaction, decoded.slots);
    }
    for (const Difference& difference : differences)
    {
        complain(difference.place + ": " + printable(difference.text, kShownCharacters));
    }
    print(output, text);
    return differences.empty() ? kSame : kDifferent;
}

ExitCode identify(const Description& description, const Options& options)
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
    {
        throw SystemError("no socket: " + errorText(errno));
    }
    UniqueFd readersEnd(ends[0]);
    UniqueFd sendersEnd(ends[1]);
    const pid_t process = fork();
    if (process < 0)
    {
        throw SystemError("no second process: " + errorText(errno));
    }
    if (process == 0)
    {
        sendersEnd.reset();
        return runReader(readersEnd.get(), description, options, STDOUT_FILENO);
    }

    ReaderProcess reader(process);
    readersEnd.reset();
    // Closed before the reader is waited for, whatever happens: it ends when nobody sends.
    UniqueFd socket = std::move(sendersEnd);
    // Their threads must not exist before the fork, which would copy whatever a thread has locked.
    // They end behind the reader, and so do their last traces.
    const ProgressLog log(options.level);
    SenderComponent component;
    Transaction transaction;
    try
    {
        transaction = runSender(component, socket.get(), description);
    }
    catch (const SystemError&)
    {
        // A reader that was ended from outside explains more than the socket does.
        socket.reset();
        readersVerdict(reader.wait());
        throw;
    }
    const ExitCode verdict = readersVerdict(reader.wait());
    sayProgress("sender", "the reader ended with " + std::to_string(static_cast<int>(verdict)));
    if (verdict == kSame && options.output.has_value())
    {
        writeOutput(*options.output, {reinterpret_cast<const char*>(transaction.payload()),
                                      transaction.payloadSize});
    }
    awaitProgress(); // before the handler's end is traced
    return verdict;
}

void print(int output, const std::string& text)
{
    const int error = writeAll(output, text);
    if (error != 0 && error != EPIPE)
    {
        throw SystemError("standard output: " + errorText(error));
    }
}

} // namespace identification
