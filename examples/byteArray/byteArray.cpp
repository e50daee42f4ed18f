// Messages out of pieces: a stream delivers bytes as it likes, a byte array collects them, and whole
// messages are cut out of it. A message is one byte, its length of at least 1, and that many
// characters.

#include <cstdio>
#include <cstring>

#include <korvane/ByteArray.h>
#include <korvane/iAp2LogUtil.h>

namespace
{

// [example]
class Collector
{
public:
    Collector()
    {
        mBytes.reserve(256); // so that pieces are added without a new buffer each
    }

    void add(char* bytes, int count)
    {
        mBytes.append(bytes, count);
    }
    bool hasMessage()
    {
        return mBytes.length() > 0 && mBytes.length() > messageLength();
    }
    IAP2::ByteArray message()
    {
        return mBytes.mid(1, messageLength());
    }
    void dropMessage()
    {
        const int dropped = 1 + messageLength();
        const int rest = mBytes.length() - dropped;
        std::memmove(mBytes.data(), mBytes.data() + dropped, static_cast<std::size_t>(rest));
        mBytes.resize(rest); // shrinking keeps the buffer
    }
    int length()
    {
        return mBytes.length();
    }

private:
    int messageLength()
    {
        return static_cast<unsigned char>(mBytes.data()[0]);
    }

    IAP2::ByteArray mBytes;
};
// [example]

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    // What read() would deliver: pieces that know nothing of messages.
    char pieces[][6] = {"\005hel", "lo\003b", "ye"};
    Collector collector;
    for (char* const piece : pieces)
    {
        collector.add(piece, static_cast<int>(std::strlen(piece)));
        while (collector.hasMessage())
        {
            // Initialised, not assigned: what an assignment moves from reports an error at its end.
            IAP2::ByteArray message = collector.message();
            collector.dropMessage();
            std::printf("%d bytes: %s\n", message.length(), message.constData());
        }
    }
    if (collector.length() != 0)
    {
        std::fprintf(stderr, "byteArray: the stream ends %d bytes into a message\n",
                     collector.length());
        return 1;
    }
    return 0;
}
