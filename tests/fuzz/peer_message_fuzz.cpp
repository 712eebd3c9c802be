// An accepted datagram, and a copy of its message, encode back to exactly the same bytes.
#include "src/peer/peer_message.hpp"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    auto message = kw::peer_message::decode(data, static_cast<ssize_t>(size));
    if (!message)
        return 0;

    auto bytes = message->encode();
    if (!bytes || bytes->size() != size || std::memcmp(bytes->data(), data, size) != 0)
        std::abort();

    auto copy = message->copy();
    if (copy->encode() != bytes)
        std::abort();
    return 0;
}
