#include "options.h"

#include <charconv>
#include <cstddef>

#include "failures.h"
#include "text.h"

namespace identification
{

namespace
{

constexpr int kSilence = 91; // one more than the highest level that is printed

[[noreturn]] void refuse(const std::string& reason)
{
    throw InputError(reason + " (see --help)");
}

int parseLevel(const std::string& text)
{
    int level = -1;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, level);
    if (error != std::errc() || stop != end || level < IAP2_LOG_VERBOSE || level > kSilence)
    {
        refuse("--level: " + quoted(text, 40) + " is not a number from 0 to 91");
    }
    return level;
}

/** Takes the options one by one from the arguments. */
class Arguments
{
public:
    explicit Arguments(const std::vector<std::string>& arguments) : mArguments(arguments)
    {
    }

    bool next()
    {
        if (mNext == mArguments.size())
        {
            return false;
        }
        mName = mArguments[mNext++];
        mValue.reset();
        const std::size_t equals = mName.find('=');
        if (mName.rfind("--", 0) == 0 && equals != std::string::npos)
        {
            mValue = mName.substr(equals + 1);
            mName.resize(equals);
        }
        return true;
    }

    const std::string& name() const
    {
        return mName;
    }

    /** What stands behind '=', or the next argument. */
    std::string value(const char* kind)
    {
        if (!mValue.has_value() && mNext < mArguments.size())
        {
            mValue = mArguments[mNext++];
        }
        if (!mValue.has_value() || mValue->empty())
        {
            refuse(mName + " needs a " + kind);
        }
        return *mValue;
    }

    /** True; what stands behind '=' is refused. */
    bool isSet() const
    {
        if (mValue.has_value())
        {
            refuse(mName + " takes no value");
        }
        return true;
    }

private:
    const std::vector<std::string>& mArguments;
    std::size_t mNext = 0;
    std::string mName;
    std::optional<std::string> mValue;
};

} // namespace

Options parseOptions(const std::vector<std::string>& arguments)
{
    Options options;
    Arguments rest(arguments);
    while (rest.next())
    {
        const std::string& name = rest.name();
        if (name == "--help" || name == "-h")
        {
            options.help = rest.isSet();
            return options;
        }
        if (name == "--input")
        {
            options.input = rest.value("FILE");
        }
        else if (name == "--output")
        {
            options.output = rest.value("FILE");
        }
        else if (name == "--level")
        {
            options.level = parseLevel(rest.value("number"));
        }
        else if (name == "--dump")
        {
            options.dump = rest.isSet();
        }
        else if (name == "--quiet")
        {
            options.quiet = rest.isSet();
        }
        else if (name.size() > 1 && name[0] == '-')
        {
            refuse("unknown option " + printable(name, 80));
        }
        else
        {
            refuse("unexpected argument " + quoted(name, 80));
        }
    }
    if (options.input.empty())
    {
        refuse("--input FILE is missing");
    }
    return options;
}

std::string helpText()
{
    return "Usage: identification --input FILE [--output FILE] [--level N] [--dump] [--quiet]\n"
           "\n"
           "Reads the description of an accessory, marshals its identification and sends it over\n"
           "a Unix socket to a second process, which reads it back, checks it against what was\n"
           "sent and prints a table of the components. Traces and progress lines go to standard\n"
           "error.\n"
           "\n"
           "  --input FILE   the description, in JSON\n"
           "  --output FILE  write the marshalled payload to FILE, once it has been checked\n"
           "  --level N      the lowest trace level that is seen: 0 or 20 everything, 40 (the\n"
           "                 default) information, 60 warnings, 90 errors, 91 nothing\n"
           "  --dump         print every slot of the payload: offset, bytes, meaning\n"
           "  --quiet        print no table\n"
           "  --help         print this text\n"
           "\n"
           "Exit codes:\n"
           "  0  what was read back is what was sent\n"
           "  1  it is not; every difference is named on standard error\n"
           "  2  wrong options or a bad description, named in one line on standard error\n"
           "  3  the system refused: memory, processes, the socket, standard output, --output\n";
}

} // namespace identification
